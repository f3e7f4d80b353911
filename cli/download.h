#ifndef DOWNLOAD_H
#define DOWNLOAD_H

class QString;
class QUrl;
class Session;

// Downloads the URL to the destination. Whatever happens, the destination is what it was or the
// whole new file, and nothing else is left behind. The SHA-256, in lower-case hexadecimal digits,
// is compared unless it is empty.
void startDownload(const QUrl &url, const QString &destination, const QString &sha256,
                   Session &session);

#endif // DOWNLOAD_H
