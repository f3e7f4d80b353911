#include "http/message.h"

#include <QtCore/qiodevice.h>

#include <algorithm>

namespace {

// The target may be a whole URL; what comes before its path is the server's name.
QByteArray withoutServer(const QByteArray &target)
{
    if (target.startsWith('/'))
        return target;
    const qsizetype server = target.indexOf("://");
    const qsizetype path = server < 0 ? -1 : target.indexOf('/', server + 3);
    return path < 0 ? target : target.sliced(path);
}

} // namespace

QByteArray headerValue(const HttpHeaders &headers, QByteArrayView name)
{
    const auto header = std::find_if(headers.begin(), headers.end(), [name](const auto &candidate) {
        return candidate.first.compare(name, Qt::CaseInsensitive) == 0;
    });
    return header == headers.end() ? QByteArray() : header->second;
}

QByteArray HttpRequest::path() const
{
    const QByteArray local = withoutServer(target);
    const qsizetype mark = local.indexOf('?');
    return mark < 0 ? local : local.first(mark);
}

QUrlQuery HttpRequest::query() const
{
    const qsizetype mark = target.indexOf('?');
    return mark < 0 ? QUrlQuery() : QUrlQuery(QString::fromLatin1(target.sliced(mark + 1)));
}

bool HttpRequest::isOfAnotherSite() const
{
    const QByteArray origin = header("Origin");
    return !origin.isNull() && origin != "http://" + header("Host");
}

qint64 HttpReply::size() const
{
    return file ? file->size() : body.size();
}

QByteArray reasonPhrase(int status)
{
    static const struct
    {
        int status;
        const char *phrase;
    } phrases[] = {
        {200, "OK"},
        {201, "Created"},
        {202, "Accepted"},
        {204, "No Content"},
        {301, "Moved Permanently"},
        {302, "Found"},
        {303, "See Other"},
        {304, "Not Modified"},
        {307, "Temporary Redirect"},
        {308, "Permanent Redirect"},
        {400, "Bad Request"},
        {401, "Unauthorized"},
        {402, "Payment Required"},
        {403, "Forbidden"},
        {404, "Not Found"},
        {405, "Method Not Allowed"},
        {408, "Request Timeout"},
        {409, "Conflict"},
        {410, "Gone"},
        {413, "Content Too Large"},
        {415, "Unsupported Media Type"},
        {417, "Expectation Failed"},
        {422, "Unprocessable Content"},
        {429, "Too Many Requests"},
        {431, "Request Header Fields Too Large"},
        {500, "Internal Server Error"},
        {501, "Not Implemented"},
        {502, "Bad Gateway"},
        {503, "Service Unavailable"},
        {504, "Gateway Timeout"},
        {505, "HTTP Version Not Supported"},
        {511, "Network Authentication Required"},
    };
    const auto *const known =
        std::find_if(std::begin(phrases), std::end(phrases),
                     [status](const auto &candidate) { return candidate.status == status; });
    return known == std::end(phrases) ? QByteArray() : QByteArray(known->phrase);
}
