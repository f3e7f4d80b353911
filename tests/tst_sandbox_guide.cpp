#include "files.h"
#include "serverprocess.h"

#include <QtCore/qdir.h>
#include <QtCore/qtemporarydir.h>
#include <QtTest/qtest.h>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

struct Block
{
    int line = 0;
    QString language;
    QString text;
};

QString guide()
{
    return QString::fromUtf8(Files::contentOf(QStringLiteral(SOURCE_DIR "/docs/sandbox.md")));
}

QList<Block> blocksOf(const QString &document)
{
    static const QRegularExpression pattern(u"^```(\\w*)\\n(.*?)^```$"_s,
                                            QRegularExpression::MultilineOption
                                                | QRegularExpression::DotMatchesEverythingOption);
    QList<Block> blocks;
    QRegularExpressionMatchIterator matches = pattern.globalMatch(document);
    while (matches.hasNext()) {
        const QRegularExpressionMatch match = matches.next();
        const qsizetype line = document.first(match.capturedStart()).count(u'\n') + 1;
        blocks.append({int(line), match.captured(1), match.captured(2)});
    }
    return blocks;
}

// Three dots stand for anything, and for nothing.
bool isAs(const QString &output, const QString &expected)
{
    QString pattern = QRegularExpression::escape(expected.trimmed());
    pattern.replace(QRegularExpression::escape(u"..."_s), u".*"_s);
    const QRegularExpression whole(QRegularExpression::anchoredPattern(pattern),
                                   QRegularExpression::DotMatchesEverythingOption);
    return whole.match(output.trimmed()).hasMatch();
}

} // namespace

// The guide to the sandbox, run as it stands.
class tst_SandboxGuide : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void commandsDoWhatTheGuideSays();
    void scenariosAreAllThere();
    void optionsAreAllThere();
};

// In one shell, as its reader would, but for the sandboxes, each of which takes the former's place.
void tst_SandboxGuide::commandsDoWhatTheGuideSays()
{
    const ReservedPort port;
    const QTemporaryDir folder;
    QVERIFY(QDir::setCurrent(folder.path()));
    QProcess shell;
    shell.setProcessChannelMode(QProcess::MergedChannels);
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"PATH"_s, QStringLiteral(CLI_DIR ":") + environment.value(u"PATH"_s));
    environment.insert(u"no_proxy"_s, u"127.0.0.1"_s);
    shell.setProcessEnvironment(environment);
    shell.start(u"bash"_s, {u"--norc"_s, u"-eu"_s});
    QVERIFY(shell.waitForStarted());

    const QString end = u"--- end of the block ---\n"_s;
    const QString start = u"corvane-sandbox "_s;
    std::unique_ptr<ServerProcess> sandbox;
    QString output;
    int compared = 0;
    const QList<Block> blocks = blocksOf(guide());
    for (const Block &documented : blocks) {
        Block block = documented;
        const QString place = u"docs/sandbox.md:%1: "_s.arg(block.line);
        block.text.replace(u":8080"_s, u':' + QString::number(port.number()));
        block.text.replace(u"--port 8080"_s, "--port "_L1 + QString::number(port.number()));
        if (block.language == "text"_L1) {
            QVERIFY2(isAs(output, block.text),
                     qPrintable(place + "not as the output:\n"_L1 + output));
            ++compared;
        } else if (block.text.startsWith(start)) {
            sandbox.reset();
            // splitCommand() knows double quotation marks alone.
            const QString command = block.text.replace(u'"', u"\"\"\""_s).replace(u'\'', u'"');
            sandbox = std::make_unique<ServerProcess>(QStringLiteral(CORVANE_SANDBOX_PATH),
                                                      QProcess::splitCommand(command).mid(1));
            static const QRegularExpression address(u"\\n"_s);
            QVERIFY2(sandbox->waitForOutput(address).hasMatch(),
                     qPrintable(place + sandbox->output()));
            output = sandbox->output();
        } else {
            QCOMPARE(block.language, u"sh"_s);
            shell.write((block.text + "echo '"_L1 + end.trimmed() + "'\n"_L1).toUtf8());
            output.clear();
            while (!output.endsWith(end) && shell.waitForReadyRead(30000))
                output += QString::fromUtf8(shell.readAll());
            QVERIFY2(output.endsWith(end), qPrintable(place + "failed:\n"_L1 + output));
            output.chop(end.size());
        }
    }
    QVERIFY(compared > 10);
    shell.closeWriteChannel();
    QVERIFY(shell.waitForFinished());
    QCOMPARE(shell.exitCode(), 0);
    QDir::setCurrent(QDir::tempPath());
}

void tst_SandboxGuide::scenariosAreAllThere()
{
    QProcess list;
    list.start(QStringLiteral(CORVANE_SANDBOX_PATH), {u"--list-scenarios"_s});
    QVERIFY(list.waitForFinished());
    static const QRegularExpression line(u"^(\\S+) +(.+)$"_s, QRegularExpression::MultilineOption);
    QString table = QString::fromUtf8(list.readAll()).replace(line, u"| `\\1` | \\2 |"_s);
    table.prepend("| Name | What a host meets |\n|---|---|\n"_L1);
    QVERIFY2(guide().contains(u'\n' + table + u'\n'), qPrintable(table));
}

void tst_SandboxGuide::optionsAreAllThere()
{
    QProcess help;
    help.start(QStringLiteral(CORVANE_SANDBOX_PATH), {u"--help"_s});
    QVERIFY(help.waitForFinished());
    static const QRegularExpression option(u"^  (--(?!help)[a-z-]+)(?: <(\\w+)>)? "_s,
                                           QRegularExpression::MultilineOption);
    const QString text = guide();
    QRegularExpressionMatchIterator options = option.globalMatch(QString::fromUtf8(help.readAll()));
    int count = 0;
    for (; options.hasNext(); ++count) {
        const QRegularExpressionMatch match = options.next();
        const QString value = match.captured(2);
        const QString row =
            "\n| `"_L1 + match.captured(1) + (value.isEmpty() ? value : u' ' + value) + "` | "_L1;
        QVERIFY2(text.contains(row), qPrintable(row));
    }
    QVERIFY(count > 5);
}

QTEST_GUILESS_MAIN(tst_SandboxGuide)

#include "tst_sandbox_guide.moc"
