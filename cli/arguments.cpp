#include "arguments.h"

#include <QtCore/qcommandlineparser.h>
#include <QtCore/qfile.h>
#include <QtCore/qjsondocument.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

using namespace Qt::StringLiterals;

namespace {

struct Synopsis
{
    Command command = {};
    QLatin1StringView name;
    QLatin1StringView operands;
    qsizetype required = 0;
    qsizetype allowed = 0;
};

constexpr Synopsis synopses[] = {
    {Command::Check, "check"_L1, " CURRENT_VERSION CHANNEL"_L1, 2, 2},
    {Command::Download, "download"_L1, " URL FILE"_L1, 2, 2},
    {Command::Plans, "plans"_L1, ""_L1, 0, 0},
    {Command::Start, "start"_L1, " PLAN FIRST_NAME LAST_NAME EMAIL"_L1, 4, 4},
    {Command::Resume, "resume"_L1, " LICENSE_KEY"_L1, 1, 1},
    {Command::Capture, "capture"_L1, " ORDER_ID"_L1, 1, 1},
    {Command::Usage, "usage"_L1, " LICENSE_KEY MACHINE_ID EVENT_TYPE [PAYLOAD_FILE]"_L1, 3, 4},
};

QString helpText()
{
    QString text = u"Usage: corvane-cli [options] COMMAND\n\nCommands:\n"_s;
    for (const Synopsis &synopsis : synopses)
        text += "  "_L1 + synopsis.name + synopsis.operands + u'\n';
    return text + uR"(      PAYLOAD_FILE holds a JSON object; - is standard input

Options:
  --server URL        the service's URL (or set CORVANE_SERVER)
  --product CODE      the product's code (or set CORVANE_PRODUCT)
  --sha256 HEX        verify the download; recommended: without it, a file cut
                      short by a full disk shows only while the disk is full
  --json              print one JSON document, for machines
  --timeout SECONDS   give up after so long; 0: never (default 60; download 0)
  --help, --version

Exit status: 0 done, 1 the service said no, 2 bad arguments or input,
  3 network failure, 4 time-out, 5 downloaded but not usable,
  6 done, but the result could not be written, 128+N ended by signal N
)"_s;
}

const Synopsis *synopsisOf(const QString &name)
{
    const auto *found =
        std::find_if(std::begin(synopses), std::end(synopses),
                     [&name](const Synopsis &synopsis) { return synopsis.name == name; });
    return found == std::end(synopses) ? nullptr : found;
}

bool isHexDigit(QChar c)
{
    return (c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f');
}

// Reads the parts in turn. Each step says whether to go on; if not, the error says why.
class Reader
{
public:
    Reader();
    std::variant<Arguments, ExitStatus> read(const QStringList &commandLine);

private:
    bool refuse(const QString &error);
    bool readCommand();
    bool readUrl();
    bool readProduct();
    bool readTimeout();
    bool readSha256();
    bool readPayload();
    QString setting(const QCommandLineOption &option, const char *variable) const;

    const QCommandLineOption m_server{u"server"_s, {}, u"URL"_s};
    const QCommandLineOption m_product{u"product"_s, {}, u"CODE"_s};
    const QCommandLineOption m_sha256{u"sha256"_s, {}, u"HEX"_s};
    const QCommandLineOption m_json{u"json"_s};
    const QCommandLineOption m_timeout{u"timeout"_s, {}, u"SECONDS"_s};
    const QCommandLineOption m_help{u"help"_s};
    const QCommandLineOption m_version{u"version"_s};
    QCommandLineParser m_parser;
    Arguments m_arguments;
    QString m_error;
};

Reader::Reader()
{
    m_parser.addOptions({m_server, m_product, m_sha256, m_json, m_timeout, m_help, m_version});
}

std::variant<Arguments, ExitStatus> Reader::read(const QStringList &commandLine)
{
    const bool parsed = m_parser.parse(commandLine);
    if (m_parser.isSet(m_help))
        return print(helpText()) ? Done : Unwritten;
    if (m_parser.isSet(m_version))
        return print(u"corvane-cli " CORVANE_VERSION "\n"_s) ? Done : Unwritten;

    if (!parsed)
        refuse(m_parser.errorText());
    // The payload last: no reading of standard input for arguments that are wrong anyway.
    else if (readCommand() && readUrl() && readProduct() && readTimeout() && readSha256()
             && readPayload())
        return m_arguments;

    printError(m_error);
    return BadInput;
}

bool Reader::refuse(const QString &error)
{
    m_error = error;
    return false;
}

bool Reader::readCommand()
{
    m_arguments.json = m_parser.isSet(m_json);
    m_arguments.operands = m_parser.positionalArguments();
    if (m_arguments.operands.isEmpty())
        return refuse(u"no command given; corvane-cli --help lists them"_s);

    const QString name = m_arguments.operands.takeFirst();
    const Synopsis *synopsis = synopsisOf(name);
    if (!synopsis)
        return refuse(u"unknown command '%1'; corvane-cli --help lists them"_s.arg(name));

    m_arguments.command = synopsis->command;
    const qsizetype count = m_arguments.operands.size();
    if (count < synopsis->required || count > synopsis->allowed) {
        return refuse(u"wrong number of arguments; usage: corvane-cli [options] "_s + synopsis->name
                      + synopsis->operands);
    }
    return true;
}

bool Reader::readUrl()
{
    const QString text = m_arguments.command == Command::Download
        ? m_arguments.operands.first()
        : setting(m_server, "CORVANE_SERVER");
    if (text.isNull())
        return refuse(u"no server; give --server URL or set CORVANE_SERVER"_s);

    m_arguments.url = QUrl(text);
    const bool web =
        m_arguments.url.scheme() == "http"_L1 || m_arguments.url.scheme() == "https"_L1;
    if (!m_arguments.url.isValid() || !web || m_arguments.url.host().isEmpty())
        return refuse(u"bad URL '%1'; it must be http:// or https:// and name a host"_s.arg(text));
    return true;
}

bool Reader::readProduct()
{
    if (m_arguments.command == Command::Download)
        return true;

    m_arguments.product = setting(m_product, "CORVANE_PRODUCT");
    if (m_arguments.product.trimmed().isEmpty())
        return refuse(u"no product code; give --product CODE or set CORVANE_PRODUCT"_s);
    return true;
}

bool Reader::readTimeout()
{
    if (!m_parser.isSet(m_timeout)) {
        m_arguments.timeout =
            std::chrono::seconds(m_arguments.command == Command::Download ? 0 : 60);
        return true;
    }

    // What QTimer can count in milliseconds.
    constexpr int longest = std::numeric_limits<int>::max() / 1000;
    const QString text = m_parser.value(m_timeout);
    bool isNumber = false;
    const double seconds = text.toDouble(&isNumber);
    // Put so that "nan" is refused.
    if (!isNumber || !(seconds >= 0 && seconds <= longest)) {
        return refuse(u"bad time-out '%1'; it must be seconds from 0 to %2"_s.arg(
            text, QString::number(longest)));
    }
    // Upwards, as a time-out that became 0 would never come.
    m_arguments.timeout = std::chrono::milliseconds(std::lround(std::ceil(seconds * 1000)));
    return true;
}

bool Reader::readSha256()
{
    if (!m_parser.isSet(m_sha256))
        return true;
    if (m_arguments.command != Command::Download)
        return refuse(u"--sha256 goes with download only"_s);

    m_arguments.sha256 = m_parser.value(m_sha256).toLower();
    if (m_arguments.sha256.size() != 64
        || !std::all_of(m_arguments.sha256.cbegin(), m_arguments.sha256.cend(), isHexDigit))
    {
        return refuse(
            u"bad --sha256 '%1'; it must be 64 hexadecimal digits"_s.arg(m_parser.value(m_sha256)));
    }
    return true;
}

bool Reader::readPayload()
{
    if (m_arguments.command != Command::Usage || m_arguments.operands.size() < 4)
        return true;

    const QString name = m_arguments.operands.last();
    if (name.isEmpty())
        return refuse(u"the payload's file name is empty; leave it out for no payload"_s);

    QFile file(name);
    const bool opened =
        name == "-"_L1 ? file.open(stdin, QIODevice::ReadOnly) : file.open(QIODevice::ReadOnly);
    const QByteArray text = opened ? file.readAll() : QByteArray();
    if (file.error() != QFileDevice::NoError)
        return refuse(u"cannot read the payload '%1': %2"_s.arg(name, file.errorString()));

    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text, &error);
    if (error.error != QJsonParseError::NoError) {
        return refuse(u"the payload '%1' is not JSON: offset %2: %3"_s.arg(
            name, QString::number(error.offset), error.errorString()));
    }
    if (!document.isObject())
        return refuse(u"the payload '%1' is JSON, but no object: offset 0: { expected"_s.arg(name));
    m_arguments.payload = document.object();
    return true;
}

// The option's value, else the variable's; null when neither is set. An empty variable is not set.
QString Reader::setting(const QCommandLineOption &option, const char *variable) const
{
    if (m_parser.isSet(option))
        return m_parser.value(option);
    const QString value = qEnvironmentVariable(variable);
    return value.isEmpty() ? QString() : value;
}

} // namespace

std::variant<Arguments, ExitStatus> readArguments(const QStringList &commandLine)
{
    return Reader().read(commandLine);
}
