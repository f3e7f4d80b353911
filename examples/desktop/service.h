#ifndef SERVICE_H
#define SERVICE_H

#include <QtCore/qstring.h>
#include <QtCore/qurl.h>

#include <chrono>

// Where the service is, what this application is to it, and how long to wait for it.
struct Service
{
    QUrl url;
    QString productCode;
    QString installedVersion;
    QString channel;
    // Finished downloads are put here.
    QString downloadFolder;
    std::chrono::milliseconds callTimeout = std::chrono::seconds(20);
    // The library tells of no progress, so this is for the whole of a download.
    std::chrono::milliseconds downloadTimeout = std::chrono::minutes(30);
};

#endif // SERVICE_H
