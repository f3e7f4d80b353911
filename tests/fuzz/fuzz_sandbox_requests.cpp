// What the sandbox makes of the bytes that a client sends, one request after the other.
//
// <pieces>, a line end, then the bytes. The pieces are letters, used in turn: 'a' is a piece of one
// byte, 'b' of two, 'c' of four, and so on. Byte 1D, a letter and a character stand for that
// character many times, as often as the letter says in the same way, so that the limits are within
// reach.

#include "http/requestreader.h"
#include "target.h"

#include <QtCore/qregularexpression.h>

#include <algorithm>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype longestHead = 32 * 1024;
constexpr qsizetype longestBody = 1024 * 1024;
constexpr qsizetype mostBytes = 3 * longestBody;
constexpr int mostPieces = 4096;

// 1 for 'a', and doubled by each letter.
qsizetype power(char letter)
{
    return qsizetype(1) << (static_cast<uchar>(letter - 'a') % 21);
}

QByteArray expanded(Target::Input input)
{
    QByteArray bytes = input.until('\x1d');
    while (!input.atEnd() && bytes.size() < mostBytes) {
        const qsizetype count = power(input.letter());
        bytes += QByteArray(count, input.letter());
        bytes += input.until('\x1d');
    }
    return bytes.left(mostBytes);
}

struct Reading
{
    HttpRequest request;
    bool expectsContinue = false;
    // Where it ends among all bytes.
    qsizetype end = 0;
};

QByteArray textOf(const Reading &reading)
{
    const HttpRequest &request = reading.request;
    QByteArray text = request.method + ' ' + request.target + '\n';
    for (const auto &[name, value] : request.headers)
        text += name + ": " + value + '\n';
    if (request.refusal != 0)
        return text + "refused with " + QByteArray::number(request.refusal);
    text += "up to " + QByteArray::number(reading.end);
    text += request.isLast ? ", last" : "";
    text += reading.expectsContinue ? ", expects leave to send its body" : "";
    return text + '\n' + request.body;
}

QByteArray textOf(const QList<Reading> &readings)
{
    QByteArray text;
    for (const Reading &reading : readings)
        text += textOf(reading) + '\n';
    return text;
}

// Reads as a connection does.
class Connection
{
public:
    void receive(const QByteArray &bytes)
    {
        if (m_isOver)
            return;
        m_received += bytes.size();
        m_unread += bytes;
        while (!m_isOver && m_reader.read(m_unread))
            finish();
        m_expectsContinue = m_reader.takeExpectation() || m_expectsContinue;
        if (!m_isOver)
            judgeWaiting();
    }

    const QList<Reading> &readings() const { return m_readings; }

private:
    void finish()
    {
        const bool expectsContinue = m_reader.takeExpectation() || m_expectsContinue;
        m_readings.append({m_reader.request(), expectsContinue, m_received - m_unread.size()});
        m_isOver = m_reader.request().isLast;
        m_expectsContinue = false;
        m_reader = {};
    }

    void judgeWaiting() const
    {
        Target::expect("no line is left lying", !m_unread.contains('\n'));
        Target::expect("what waits is no longer than a head", m_unread.size() <= longestHead);
        Target::expect("the body is no longer than it may be",
                       m_reader.request().body.size() <= longestBody);
    }

    RequestReader m_reader;
    QByteArray m_unread;
    qsizetype m_received = 0;
    bool m_expectsContinue = false;
    bool m_isOver = false;
    QList<Reading> m_readings;
};

// The same question, answered by other means: what the request is at the beginning of the bytes, if
// it is there to its end and nothing is wrong with it.
class Statement
{
public:
    explicit Statement(QByteArrayView bytes)
        : m_bytes(bytes)
    {
    }

    std::optional<Reading> reading()
    {
        if (!readHead() || !readBody() || m_position - m_reading.request.body.size() > longestHead)
            return std::nullopt;
        m_reading.end = m_position;
        return m_reading;
    }

private:
    bool readHead();
    bool readBody();
    bool readChunks();
    bool readTrailers();
    bool read(qsizetype size);
    // The values of all headers of that name.
    QByteArrayList values(const char *name) const;

    const QByteArrayView m_bytes;
    qsizetype m_position = 0;
    Reading m_reading;
};

bool Statement::readHead()
{
    // A character for each byte, and a line more than a head may have.
    const QString text =
        QString::fromLatin1(m_bytes.first(std::min(m_bytes.size(), longestHead + 2)));
    static const QString token = u"[!#$%&'*+.^_`|~0-9A-Za-z-]+"_s;
    static const QRegularExpression head(
        u"\\A(?:\\r\\n)*+(%1) ([!-~]+) HTTP/1\\.([01])\\r\\n((?:%1:[\\t -~\\x80-\\xff]*+\\r\\n)*+)\\r\\n"_s
            .arg(token));
    const QRegularExpressionMatch match = head.match(text);
    if (!match.hasMatch())
        return false;
    HttpRequest &request = m_reading.request;
    request.method = match.captured(1).toLatin1();
    request.target = match.captured(2).toLatin1();
    static const QRegularExpression line(u"(%1):[\\t ]*(.*?)[\\t ]*\\r\\n"_s.arg(token));
    for (auto it = line.globalMatch(match.captured(4)); it.hasNext();) {
        const QRegularExpressionMatch header = it.next();
        request.headers.emplaceBack(header.captured(1).toLatin1(), header.captured(2).toLatin1());
    }
    m_position = match.capturedEnd();

    const bool isOld = match.captured(3) == "0"_L1;
    static const QRegularExpression close(u"(?:^|,)[\\t ]*close[\\t ]*(?:,|$)"_s,
                                          QRegularExpression::CaseInsensitiveOption);
    const QString connection = QString::fromLatin1(values("connection").value(0));
    request.isLast = isOld || connection.contains(close);
    const qsizetype hosts = values("host").size();
    return hosts == 1 || (hosts == 0 && isOld);
}

bool Statement::readBody()
{
    const QByteArrayList lengths = values("content-length");
    const QByteArrayList codings = values("transfer-encoding");
    const QByteArray expectation = values("expect").value(0).toLower();
    if (lengths.size() + codings.size() > 1
        || (!expectation.isEmpty() && expectation != "100-continue"))
        return false;
    if (!codings.isEmpty()) {
        m_reading.expectsContinue = !expectation.isEmpty();
        return codings.first().toLower() == "chunked" && readChunks();
    }

    qsizetype size = 0;
    const QByteArray length = lengths.value(0);
    for (const char digit : length) {
        size = std::min(size * 10 + (digit - '0'), longestBody + 1);
        if (digit < '0' || digit > '9')
            return false;
    }
    m_reading.expectsContinue = !expectation.isEmpty() && size > 0;
    return (lengths.isEmpty() || !lengths.first().isEmpty()) && read(size);
}

bool Statement::readChunks()
{
    static const QRegularExpression sizeLine(
        u"\\A0*([0-9A-Fa-f]{1,6})[\\t ]*(?:;[^\\n]*)?\\r\\n"_s);
    while (true) {
        const qsizetype ahead = std::min(m_bytes.size() - m_position, longestHead + 2);
        const QRegularExpressionMatch match =
            sizeLine.match(QString::fromLatin1(m_bytes.sliced(m_position, ahead)));
        if (!match.hasMatch())
            return false;
        m_position += match.capturedEnd();
        const qsizetype size = match.captured(1).toLongLong(nullptr, 16);
        if (size == 0)
            return readTrailers();
        if (!read(size) || !m_bytes.sliced(m_position).startsWith("\r\n"))
            return false;
        m_position += 2;
    }
}

bool Statement::readTrailers()
{
    while (true) {
        const qsizetype end = m_bytes.indexOf('\n', m_position);
        if (end <= m_position || m_bytes.at(end - 1) != '\r')
            return false;
        const bool isEmpty = end - m_position == 1;
        m_position = end + 1;
        if (isEmpty)
            return true;
    }
}

bool Statement::read(qsizetype size)
{
    QByteArray &body = m_reading.request.body;
    if (size > m_bytes.size() - m_position || size > longestBody - body.size())
        return false;
    body += m_bytes.sliced(m_position, size);
    m_position += size;
    return true;
}

QByteArrayList Statement::values(const char *name) const
{
    QByteArrayList values;
    for (const auto &[candidate, value] : m_reading.request.headers) {
        if (candidate.toLower() == name)
            values += value;
    }
    return values;
}

void judge(const QList<Reading> &readings, const QByteArray &bytes)
{
    constexpr int refusals[] = {400, 413, 417, 431, 501, 505};
    qsizetype begin = 0;
    for (const Reading &reading : readings) {
        const HttpRequest &request = reading.request;
        std::optional<Reading> stated = Statement(QByteArrayView(bytes).sliced(begin)).reading();
        if (request.refusal == 0) {
            Target::expect("a request to take", stated.has_value());
            stated->end += begin;
            Target::expect("the request", textOf(reading), textOf(*stated));
        } else {
            Target::expect("a request to refuse", !stated.has_value());
            Target::expect("a status to refuse with",
                           std::count(std::begin(refusals), std::end(refusals), request.refusal)
                               == 1);
            Target::expect("a head that is too long",
                           request.refusal != 431 || bytes.size() - begin > longestHead);
            Target::expect("no request after a refused one", request.isLast);
        }
        begin = reading.end;
    }
    if (readings.isEmpty() || !readings.constLast().request.isLast) {
        Target::expect("no whole request that is not taken",
                       !Statement(QByteArrayView(bytes).sliced(begin)).reading().has_value());
    }
}

} // namespace

int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    return Target::initialize(argc, argv, Target::refuseMessage);
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    Target::Input input(data, size);
    const QByteArray pieces = input.until('\n');
    const QByteArray bytes = expanded(input);

    Connection whole;
    whole.receive(bytes);
    judge(whole.readings(), bytes);

    Connection parted;
    qsizetype position = 0;
    for (int i = 0; i < mostPieces && !pieces.isEmpty() && position < bytes.size(); ++i) {
        const qsizetype length = power(pieces.at(i % pieces.size()));
        parted.receive(bytes.mid(position, length));
        position += length;
    }
    parted.receive(bytes.mid(position));
    Target::expect("the same in pieces", textOf(parted.readings()), textOf(whole.readings()));
    return 0;
}
