#ifndef SCRIPTEDREPLY_H
#define SCRIPTEDREPLY_H

#include "model.h"
#include "target.h"

#include <QtNetwork/qnetworkreply.h>

#include <algorithm>

// A reply without a network: it finishes when, and as, it is told.
class ScriptedReply : public QNetworkReply
{
public:
    using QNetworkReply::QNetworkReply;

    void finish(const Model::Answer &answer)
    {
        m_unread = answer.body;
        open(ReadOnly); // first: it clears the error's text
        if (answer.error != NoError)
            setError(answer.error, answer.errorString);
        if (answer.status != noStatus)
            setAttribute(QNetworkRequest::HttpStatusCodeAttribute, answer.status);
        setFinished(true);
        Q_EMIT finished();
    }

    void abort() override { }
    bool isSequential() const override { return true; }
    qint64 bytesAvailable() const override
    {
        return m_unread.size() + QNetworkReply::bytesAvailable();
    }

    // What an answer's status is when it has none; 0 is one.
    static constexpr int noStatus = -1000;

    // <error><status><body>
    static Model::Answer answerOf(Target::Input &input)
    {
        const NetworkError error = Target::choice(errors, input.letter());
        const int status = Target::choice(statuses, input.letter());
        return {error, QStringLiteral("Network error %1").arg(error), status, input.rest()};
    }

protected:
    qint64 readData(char *data, qint64 maximum) override
    {
        const qsizetype size = qMin<qsizetype>(m_unread.size(), maximum);
        std::copy_n(m_unread.constData(), size, data);
        m_unread.remove(0, size);
        return size;
    }

private:
    // The first is none. Of the status, the last is none; errors and statuses need not fit.
    static constexpr NetworkError errors[] = {
        NoError,
        ConnectionRefusedError,
        RemoteHostClosedError,
        HostNotFoundError,
        TimeoutError,
        OperationCanceledError,
        SslHandshakeFailedError,
        TooManyRedirectsError,
        InsecureRedirectError,
        UnknownNetworkError,
        ProxyAuthenticationRequiredError,
        ContentAccessDenied,
        ContentNotFoundError,
        AuthenticationRequiredError,
        ContentConflictError,
        UnknownContentError,
        ProtocolUnknownError,
        ProtocolFailure,
        InternalServerError,
        ServiceUnavailableError,
        UnknownServerError,
    };
    static constexpr int statuses[] = {
        200, 201, 204, 301, 304, 400, 401, 403, 404,        409,
        422, 429, 500, 502, 503, 0,   -1,  1,   2147483647, noStatus,
    };

    QByteArray m_unread;
};

#endif // SCRIPTEDREPLY_H
