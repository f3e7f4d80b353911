#include "http/requestreader.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace {

// The characters of methods and header names.
bool isToken(QByteArrayView text)
{
    constexpr QByteArrayView marks = "!#$%&'*+-.^_`|~";
    return !text.isEmpty() && std::all_of(text.begin(), text.end(), [&](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')
            || marks.contains(c);
    });
}

bool isTarget(QByteArrayView text)
{
    return !text.isEmpty()
        && std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < 0x7f; });
}

bool isHeaderValue(QByteArrayView text)
{
    return std::all_of(text.begin(), text.end(), [](char c) {
        return c == '\t' || (static_cast<uchar>(c) >= ' ' && c != 0x7f);
    });
}

// What is taken off around a value. Whoever takes off other characters too, as QByteArray's
// trimmed() does, sees other headers than the others do.
bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

QByteArrayView withoutBlanksAfter(QByteArrayView text)
{
    while (!text.isEmpty() && isBlank(text.back()))
        text.chop(1);
    return text;
}

QByteArrayView withoutBlanksAround(QByteArrayView text)
{
    while (!text.isEmpty() && isBlank(text.front()))
        text = text.sliced(1);
    return withoutBlanksAfter(text);
}

// A number of nothing but digits; a huge one when there are too many of them.
std::optional<qsizetype> number(const QByteArray &text, int base)
{
    const bool isNumber = !text.isEmpty() && std::all_of(text.begin(), text.end(), [base](char c) {
        return (c >= '0' && c <= '9')
            || (base == 16 && ((c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F')));
    });
    if (!isNumber)
        return std::nullopt;
    bool fits = false;
    const qsizetype value = text.toLongLong(&fits, base);
    return fits ? value : std::numeric_limits<qsizetype>::max();
}

qsizetype count(const HttpHeaders &headers, QByteArrayView name)
{
    return std::count_if(headers.begin(), headers.end(), [name](const auto &header) {
        return header.first.compare(name, Qt::CaseInsensitive) == 0;
    });
}

bool hasOption(const QByteArray &list, QByteArrayView option)
{
    const QByteArrayList options = list.toLower().split(',');
    return std::any_of(options.begin(), options.end(), [option](const QByteArray &candidate) {
        return candidate.trimmed() == option;
    });
}

} // namespace

bool RequestReader::read(QByteArray &bytes)
{
    while (m_step != Done && advance(bytes)) {
    }
    return m_step == Done;
}

bool RequestReader::takeExpectation()
{
    return std::exchange(m_expectsContinue, false);
}

// False when there are too few bytes to go on.
bool RequestReader::advance(QByteArray &bytes)
{
    if (m_step == Body || m_step == Chunk)
        return takeBody(bytes, m_step == Body ? Done : ChunkEnd);

    const std::optional<QByteArray> line = takeLine(bytes);
    if (!line || m_step == Done)
        return false;
    switch (m_step) {
    case RequestLine:
        readRequestLine(*line);
        break;
    case Headers:
        readHeader(*line);
        break;
    case ChunkSize:
        readChunkSize(*line);
        break;
    case ChunkEnd:
        m_step = ChunkSize;
        if (!line->isEmpty())
            refuse(400);
        break;
    case Trailers:
        if (line->isEmpty())
            m_step = Done;
        break;
    case Body:
    case Chunk:
    case Done:
        break;
    }
    return true;
}

// Without its end, which is of two characters: whoever takes one of them alone for an end sees
// other headers than the others do.
std::optional<QByteArray> RequestReader::takeLine(QByteArray &bytes)
{
    const qsizetype end = bytes.indexOf('\n');
    // A client that speaks TLS, or anything else, may never send the end of a line.
    const bool isForeign = m_step == RequestLine && !bytes.isEmpty() && bytes.at(0) != '\r'
        && !isToken(bytes.first(1));
    const bool isTooLong = m_headSize + (end < 0 ? bytes.size() : end + 1) > longestHead;
    const bool isBroken = end == 0 || (end > 0 && bytes.at(end - 1) != '\r');
    // What is foreign is known by its first byte, however much of it has come.
    if (isForeign || (isBroken && !isTooLong))
        refuse(400);
    else if (isTooLong)
        refuse(431);
    if (end < 0 || m_step == Done)
        return std::nullopt;

    const QByteArray line = bytes.first(end - 1);
    bytes.remove(0, end + 1);
    m_headSize += end + 1;
    return line;
}

void RequestReader::readRequestLine(const QByteArray &line)
{
    // Some clients end a body with an empty line too many.
    if (line.isEmpty())
        return;

    const QByteArrayList parts = line.split(' ');
    if (parts.size() != 3 || !isToken(parts.at(0)) || !isTarget(parts.at(1))
        || !parts.at(2).startsWith("HTTP/"))
        return refuse(400);
    m_request.method = parts.at(0);
    m_request.target = parts.at(1);
    if (parts.at(2) != "HTTP/1.1" && parts.at(2) != "HTTP/1.0")
        return refuse(505);
    m_request.isLast = parts.at(2) == "HTTP/1.0";
    m_step = Headers;
}

void RequestReader::readHeader(const QByteArray &line)
{
    if (line.isEmpty())
        return endHead();

    const qsizetype colon = line.indexOf(':');
    const QByteArray name = line.first(std::max<qsizetype>(colon, 0));
    const QByteArray value =
        withoutBlanksAround(QByteArrayView(line).sliced(colon + 1)).toByteArray();
    if (!isToken(name) || !isHeaderValue(value))
        return refuse(400);
    m_request.headers.emplaceBack(name, value);
}

void RequestReader::endHead()
{
    const bool isOld = m_request.isLast;
    if (hasOption(m_request.header("Connection"), "close"))
        m_request.isLast = true;

    const qsizetype lengths = count(m_request.headers, "Content-Length");
    const qsizetype codings = count(m_request.headers, "Transfer-Encoding");
    const qsizetype hosts = count(m_request.headers, "Host");
    if (lengths + codings > 1 || hosts > 1 || (hosts == 0 && !isOld))
        return refuse(400);

    if (codings == 1 && m_request.header("Transfer-Encoding").toLower() != "chunked")
        return refuse(501);
    if (lengths == 1) {
        const std::optional<qsizetype> length = number(m_request.header("Content-Length"), 10);
        if (!length)
            return refuse(400);
        m_missing = *length;
    }
    if (m_missing > longestBody)
        return refuse(413);

    const QByteArray expectation = m_request.header("Expect").toLower();
    if (!expectation.isEmpty() && expectation != "100-continue")
        return refuse(417);
    m_expectsContinue = !expectation.isEmpty() && (codings == 1 || m_missing > 0);
    m_step = codings == 1 ? ChunkSize : m_missing > 0 ? Body : Done;
}

void RequestReader::readChunkSize(const QByteArray &line)
{
    const std::optional<qsizetype> size =
        number(withoutBlanksAfter(line.split(';').constFirst()).toByteArray(), 16);
    if (!size)
        return refuse(400);
    if (*size > longestBody - m_request.body.size())
        return refuse(413);
    m_missing = *size;
    m_step = m_missing > 0 ? Chunk : Trailers;
}

bool RequestReader::takeBody(QByteArray &bytes, Step next)
{
    const qsizetype size = std::min(m_missing, bytes.size());
    m_request.body += bytes.first(size);
    bytes.remove(0, size);
    m_missing -= size;
    if (m_missing > 0)
        return false;
    m_step = next;
    return true;
}

void RequestReader::refuse(int status)
{
    m_request.refusal = status;
    // Where the next request would begin is not known.
    m_request.isLast = true;
    m_step = Done;
}
