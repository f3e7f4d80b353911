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
    // What it quotes; empty if it says nothing of that.
    QString source;
    QString language;
    QString text;
};

QString guide(const QString &name)
{
    return QString::fromUtf8(Files::contentOf(QStringLiteral(SOURCE_DIR "/docs/%1.md").arg(name)));
}

QList<Block> blocksOf(const QString &document)
{
    static const QRegularExpression pattern(u"^(?:<!-- ([^\\n]+) -->\\n)?```(\\w*)\\n(.*?)^```$"_s,
                                            QRegularExpression::MultilineOption
                                                | QRegularExpression::DotMatchesEverythingOption);
    QList<Block> blocks;
    QRegularExpressionMatchIterator matches = pattern.globalMatch(document);
    while (matches.hasNext()) {
        const QRegularExpressionMatch match = matches.next();
        const qsizetype line = document.first(match.capturedStart(2)).count(u'\n') + 1;
        blocks.append({int(line), match.captured(1), match.captured(2), match.captured(3)});
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

// Does what a guide says, in the tree's top folder, where ./demo has been run before: in one shell,
// but for the sandboxes, each of which takes the former's place.
class Reader
{
public:
    Reader();

    void write(const QString &file, const QString &content) const;
    // False if it fails.
    bool run(QString command);
    QString output() const { return m_output; }
    bool close();

private:
    bool startSandbox(const QString &command);
    // The folder that the shell is in.
    QString current() const { return u"/proc/%1/cwd/"_s.arg(m_shell.processId()); }

    const QTemporaryDir m_tree;
    const QTemporaryDir m_home;
    // Stands in for the one in the guides.
    const ReservedPort m_port;
    QProcess m_shell;
    std::unique_ptr<ServerProcess> m_sandbox;
    QString m_output;
};

Reader::Reader()
{
    QVERIFY(QDir(m_tree.path()).mkdir(u"build"_s));
    QVERIFY(QFile::link(QStringLiteral(BUILD_DIR), m_tree.filePath(u"build/release"_s)));
    const QString demo = m_tree.filePath(u"demo"_s);
    Files::write(demo, "#!/bin/sh\n");
    QVERIFY(QFile::setPermissions(demo, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
    qputenv("HOME", m_home.path().toUtf8());
    m_shell.setProcessChannelMode(QProcess::MergedChannels);
    m_shell.setWorkingDirectory(m_tree.path());
    m_shell.start(u"bash"_s, {u"--norc"_s, u"-eu"_s});
    QVERIFY(m_shell.waitForStarted());
}

void Reader::write(const QString &file, const QString &content) const
{
    Files::write(current() + file, content.toUtf8());
}

bool Reader::run(QString command)
{
    static const QRegularExpression start(u"^\\S*corvane-sandbox .*\\n$"_s);
    const QString port = QString::number(m_port.number());
    command.replace(u":8080"_s, u':' + port).replace(u"--port 8080"_s, "--port "_L1 + port);
    if (start.match(command).hasMatch())
        return startSandbox(command);

    const QString end = u"--- end of the block ---\n"_s;
    m_shell.write((command + "echo '"_L1 + end.trimmed() + "'\n"_L1).toUtf8());
    m_output.clear();
    while (!m_output.endsWith(end) && m_shell.waitForReadyRead(120000))
        m_output += QString::fromUtf8(m_shell.readAll());
    if (!m_output.endsWith(end))
        return false;
    m_output.chop(end.size());
    m_output.replace(u':' + port, u":8080"_s);
    return true;
}

bool Reader::startSandbox(const QString &command)
{
    static const QRegularExpression address(u"\\n"_s);
    m_sandbox.reset();
    m_sandbox = std::make_unique<ServerProcess>(
        u"bash"_s, QStringList{u"-c"_s, "cd "_L1 + current() + "; exec "_L1 + command});
    const bool isRunning = m_sandbox->waitForOutput(address).hasMatch();
    m_output = m_sandbox->output();
    m_output.replace(u':' + QString::number(m_port.number()), u":8080"_s);
    return isRunning;
}

bool Reader::close()
{
    m_shell.closeWriteChannel();
    return m_shell.waitForFinished() && m_shell.exitCode() == 0;
}

} // namespace

// Guides, read and done as they stand.
class tst_Guides : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void commandsDoWhatTheGuideSays_data();
    void commandsDoWhatTheGuideSays();
    void scenariosAreAllThere();
    void optionsAreAllThere();
};

void tst_Guides::initTestCase()
{
    qputenv("PATH", CLI_DIR ":" SANDBOX_DIR ":" + qgetenv("PATH"));
    qputenv("no_proxy", "127.0.0.1");
}

void tst_Guides::commandsDoWhatTheGuideSays_data()
{
    QTest::addColumn<QString>("name");

    QTest::newRow("checkout") << u"checkout"_s;
    QTest::newRow("first-host") << u"first-host"_s;
    QTest::newRow("sandbox") << u"sandbox"_s;
    QTest::newRow("usage") << u"usage"_s;
}

void tst_Guides::commandsDoWhatTheGuideSays()
{
    QFETCH(const QString, name);

    Reader reader;
    int compared = 0;
    const QString document = guide(name);
    const QList<Block> blocks = blocksOf(document);
    for (const Block &block : blocks) {
        const QString place = u"docs/%1.md:%2: "_s.arg(name).arg(block.line);
        if (block.source.startsWith("from "_L1))
            continue;
        if (!block.source.isEmpty()) {
            reader.write(QFileInfo(block.source).fileName(), block.text);
        } else if (block.language == "text"_L1) {
            QVERIFY2(isAs(reader.output(), block.text),
                     qPrintable(place + "not as the output:\n"_L1 + reader.output()));
            ++compared;
        } else {
            QCOMPARE(block.language, u"sh"_s);
            QVERIFY2(reader.run(block.text), qPrintable(place + "failed:\n"_L1 + reader.output()));
        }
    }
    QVERIFY(compared > 0);
    QCOMPARE(compared, document.count(u"\n```text\n"_s));
    QVERIFY(reader.close());
}

void tst_Guides::scenariosAreAllThere()
{
    QProcess list;
    list.start(QStringLiteral(CORVANE_SANDBOX_PATH), {u"--list-scenarios"_s});
    QVERIFY(list.waitForFinished());
    static const QRegularExpression line(u"^(\\S+) +(.+)$"_s, QRegularExpression::MultilineOption);
    QString table = QString::fromUtf8(list.readAll()).replace(line, u"| `\\1` | \\2 |"_s);
    table.prepend("| Name | What a host meets |\n|---|---|\n"_L1);
    QVERIFY2(guide(u"sandbox"_s).contains(u'\n' + table + u'\n'), qPrintable(table));
}

void tst_Guides::optionsAreAllThere()
{
    QProcess help;
    help.start(QStringLiteral(CORVANE_SANDBOX_PATH), {u"--help"_s});
    QVERIFY(help.waitForFinished());
    static const QRegularExpression option(u"^  (--(?!help)[a-z-]+)(?: <(\\w+)>)? "_s,
                                           QRegularExpression::MultilineOption);
    const QString text = guide(u"sandbox"_s);
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

QTEST_GUILESS_MAIN(tst_Guides)

#include "tst_guides.moc"
