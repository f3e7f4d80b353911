#ifndef REQUESTREADER_H
#define REQUESTREADER_H

#include "http/message.h"

#include <optional>

// Reads one HTTP/1 request from bytes as they come. What is no such request, or is too long, ends
// as a request with a refusal.
class RequestReader
{
public:
    static constexpr qsizetype longestHead = 32 * 1024;
    static constexpr qsizetype longestBody = 1024 * 1024;

    // Takes what belongs to the request from the front of the bytes. True when the request has
    // ended; with false, no byte that could be taken is left.
    bool read(QByteArray &bytes);

    const HttpRequest &request() const { return m_request; }
    // True once if the client waits for leave to send the body.
    bool takeExpectation();

private:
    enum Step { RequestLine, Headers, Body, ChunkSize, Chunk, ChunkEnd, Trailers, Done };

    bool advance(QByteArray &bytes);
    std::optional<QByteArray> takeLine(QByteArray &bytes);
    void readRequestLine(const QByteArray &line);
    void readHeader(const QByteArray &line);
    void endHead();
    void readChunkSize(const QByteArray &line);
    bool takeBody(QByteArray &bytes, Step next);
    void refuse(int status);

    Step m_step = RequestLine;
    HttpRequest m_request;
    // Of all lines, those between chunks included.
    qsizetype m_headSize = 0;
    // What is still missing of the body or the chunk.
    qsizetype m_missing = 0;
    bool m_expectsContinue = false;
};

#endif // REQUESTREADER_H
