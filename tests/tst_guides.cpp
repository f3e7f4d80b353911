#include "files.h"
#include "serverprocess.h"

#include <QtCore/qdir.h>
#include <QtCore/qtemporarydir.h>
#include <QtTest/qtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>

using namespace Qt::StringLiterals;

namespace {

constexpr int timeout = 120000;

// A piece of code in a page.
struct Block
{
    QString place; // page and line
    // Of a comment right above it: "FILE", "from FILE" or "not run: REASON". Empty for what is run.
    QString mark;
    QString language;
    QString text;

    bool isNotRun() const { return mark.startsWith(notRun) && mark.size() > notRun.size(); }
    bool isPart() const { return mark.startsWith(part); }
    QString source() const { return isPart() ? mark.sliced(part.size()) : mark; }

private:
    static constexpr QLatin1String notRun = "not run: "_L1;
    static constexpr QLatin1String part = "from "_L1;
};

QString contentOf(const QString &file)
{
    return QString::fromUtf8(Files::contentOf(QStringLiteral(SOURCE_DIR "/") + file));
}

// Of the tree, but not what was built or installed there.
QStringList pagesIn(const QString &folder = {})
{
    const QDir dir(QStringLiteral(SOURCE_DIR "/") + folder);
    QStringList pages = dir.entryList({u"*.md"_s}, QDir::Files);
    for (QString &page : pages)
        page.prepend(folder);
    const QStringList folders = dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks);
    for (const QString &name : folders) {
        if (name != "build"_L1 && name != "node_modules"_L1)
            pages += pagesIn(folder + name + u'/');
    }
    return pages;
}

const QRegularExpression fencedBlock(u"^(?:<!-- ([^\\n]+) -->\\n)?```(\\w*)\\n(.*?)^```$"_s,
                                     QRegularExpression::MultilineOption
                                         | QRegularExpression::DotMatchesEverythingOption);

QList<Block> blocksOf(const QString &page)
{
    const QString document = contentOf(page);
    QList<Block> blocks;
    for (const QRegularExpressionMatch &match : fencedBlock.globalMatch(document)) {
        const qsizetype line = document.first(match.capturedStart(2)).count(u'\n') + 1;
        blocks.append({page + u':' + QString::number(line) + ": "_L1, match.captured(1),
                       match.captured(2), match.captured(3)});
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

// Does what a page says, in a copy of the tree, where ./demo has been run before: in one shell, but
// for the servers, each of which takes the former's place.
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
    void copy(const QString &name) const;
    // These were run, and are not again.
    void standInFor(const QString &script) const;
    bool startServer(const QString &command);
    // The folder that the shell is in.
    QString current() const { return u"/proc/%1/cwd/"_s.arg(m_shell.processId()); }

    const QTemporaryDir m_tree;
    const QTemporaryDir m_home;
    // Stands in for the one in the guides.
    const ReservedPort m_port;
    QProcess m_shell;
    std::unique_ptr<ServerProcess> m_server;
    QString m_output;
};

Reader::Reader()
{
    for (const char *name :
         {"CMakeLists.txt", "cmake", "docs", "examples", "include", "src", "contract/openapi.yaml",
          "contract/package.json", "contract/redocly.yaml"})
        copy(QString::fromLatin1(name));
    QVERIFY(QFile::link(QStringLiteral(SOURCE_DIR "/contract/node_modules"),
                        m_tree.filePath(u"contract/node_modules"_s)));
    QVERIFY(QDir(m_tree.path()).mkdir(u"build"_s));
    QVERIFY(QFile::link(QStringLiteral(BUILD_DIR), m_tree.filePath(u"build/release"_s)));
    standInFor(u"demo"_s);
    standInFor(u"check"_s);
    qputenv("HOME", m_home.path().toUtf8());
    m_shell.setProcessChannelMode(QProcess::MergedChannels);
    m_shell.setWorkingDirectory(m_tree.path());
    m_shell.start(u"bash"_s, {u"--norc"_s, u"-eu"_s});
    QVERIFY(m_shell.waitForStarted());
}

void Reader::copy(const QString &name) const
{
    const QFileInfo copy(m_tree.filePath(name));
    QVERIFY(QDir().mkpath(copy.path()));
    std::filesystem::copy(QFileInfo(QStringLiteral(SOURCE_DIR "/") + name).filesystemFilePath(),
                          copy.filesystemFilePath(), std::filesystem::copy_options::recursive);
}

void Reader::standInFor(const QString &script) const
{
    QVERIFY(QFileInfo(QStringLiteral(SOURCE_DIR "/") + script).isExecutable());
    const QString file = m_tree.filePath(script);
    Files::write(file, "#!/bin/sh\nexit $#\n");
    QVERIFY(QFile::setPermissions(file, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner));
}

void Reader::write(const QString &file, const QString &content) const
{
    Files::write(current() + file, content.toUtf8());
}

bool Reader::run(QString command)
{
    static const QRegularExpression start(u"^\\S*(corvane-sandbox|prism) .*\\n$"_s);
    const QString port = QString::number(m_port.number());
    command.replace(u":8080"_s, u':' + port).replace(u"--port 8080"_s, "--port "_L1 + port);
    if (start.match(command).hasMatch())
        return startServer(command);

    const QString end = u"--- end of the block ---\n"_s;
    m_shell.write((command + "echo '"_L1 + end.trimmed() + "'\n"_L1).toUtf8());
    m_output.clear();
    while (!m_output.endsWith(end) && m_shell.waitForReadyRead(timeout))
        m_output += QString::fromUtf8(m_shell.readAll());
    if (!m_output.endsWith(end))
        return false;
    m_output.chop(end.size());
    m_output.replace(u':' + port, u":8080"_s);
    return true;
}

bool Reader::startServer(const QString &command)
{
    static const QRegularExpression address(u"http://127\\.0\\.0\\.1:\\d+\\s"_s);
    m_server.reset();
    m_server = std::make_unique<ServerProcess>(
        u"bash"_s, QStringList{u"-c"_s, "cd "_L1 + current() + "; exec "_L1 + command});
    const bool isRunning = m_server->waitForOutput(address, 0, timeout).hasMatch();
    m_output = m_server->output();
    m_output.replace(u':' + QString::number(m_port.number()), u":8080"_s);
    return isRunning;
}

bool Reader::close()
{
    m_shell.closeWriteChannel();
    return m_shell.waitForFinished() && m_shell.exitCode() == 0;
}

} // namespace

// All pages, read and done as they stand.
class tst_Guides : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void codeIsFenced_data();
    void codeIsFenced();
    void codeIsRunOrQuoted_data();
    void codeIsRunOrQuoted();
    void commandsDoWhatThePageSays_data();
    void commandsDoWhatThePageSays();
    void scenariosAreAllThere();
    void optionsAreAllThere();
};

void tst_Guides::initTestCase()
{
    qputenv("PATH", CLI_DIR ":" SANDBOX_DIR ":" + qgetenv("PATH"));
    qputenv("no_proxy", "127.0.0.1");
    // Else npm asks its registry for a newer one.
    qputenv("npm_config_update_notifier", "false");
}

void tst_Guides::codeIsFenced_data()
{
    QTest::addColumn<QString>("page");

    const QStringList pages = pagesIn();
    QVERIFY(pages.contains(u"README.md"_s) && pages.contains(u"docs/sandbox.md"_s));
    for (const QString &page : pages)
        QTest::newRow(qPrintable(page)) << page;
}

// Code that stands otherwise in a page would escape these tests.
void tst_Guides::codeIsFenced()
{
    QFETCH(const QString, page);

    const QString rest = contentOf(page).remove(fencedBlock);
    static const QRegularExpression code(u"^(    |\t).*|.*(```|~~~|<pre|<code).*"_s,
                                         QRegularExpression::MultilineOption);
    QCOMPARE(code.match(rest).captured(), QString());
}

void tst_Guides::codeIsRunOrQuoted_data()
{
    codeIsFenced_data();
}

void tst_Guides::codeIsRunOrQuoted()
{
    QFETCH(const QString, page);

    const QList<Block> blocks = blocksOf(page);
    for (const Block &block : blocks) {
        if (block.isNotRun())
            continue;
        if (block.mark.isEmpty()) {
            QVERIFY2(block.language == "sh"_L1 || block.language == "text"_L1,
                     qPrintable(block.place + "no command, and from no file"_L1));
            continue;
        }
        const QString content = contentOf(block.source());
        const bool isQuoted =
            block.isPart() ? (u'\n' + content).contains(u'\n' + block.text) : content == block.text;
        QVERIFY2(isQuoted && !block.text.isEmpty(),
                 qPrintable(block.place + "not as in "_L1 + block.source()));
    }
}

void tst_Guides::commandsDoWhatThePageSays_data()
{
    QTest::addColumn<QString>("page");

    const QStringList pages = pagesIn();
    for (const QString &page : pages) {
        // Needs Prism and Redocly.
        if (page.startsWith("contract/"_L1) && !WITH_CONTRACT)
            continue;
        const QList<Block> blocks = blocksOf(page);
        const auto isToDo = [](const Block &block) { return block.mark.isEmpty(); };
        if (std::any_of(blocks.begin(), blocks.end(), isToDo))
            QTest::newRow(qPrintable(page)) << page;
    }
}

void tst_Guides::commandsDoWhatThePageSays()
{
    QFETCH(const QString, page);

    Reader reader;
    const QList<Block> blocks = blocksOf(page);
    for (const Block &block : blocks) {
        if (block.isPart() || block.isNotRun())
            continue;
        if (!block.mark.isEmpty()) {
            reader.write(QFileInfo(block.source()).fileName(), block.text);
        } else if (block.language == "text"_L1) {
            QVERIFY2(isAs(reader.output(), block.text),
                     qPrintable(block.place + "not as the output:\n"_L1 + reader.output()));
        } else {
            QVERIFY2(reader.run(block.text),
                     qPrintable(block.place + "failed:\n"_L1 + reader.output()));
        }
    }
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
    QVERIFY2(contentOf(u"docs/sandbox.md"_s).contains(u'\n' + table + u'\n'), qPrintable(table));
}

void tst_Guides::optionsAreAllThere()
{
    QProcess help;
    help.start(QStringLiteral(CORVANE_SANDBOX_PATH), {u"--help"_s});
    QVERIFY(help.waitForFinished());
    static const QRegularExpression option(u"^  (--(?!help)[a-z-]+)(?: <(\\w+)>)? "_s,
                                           QRegularExpression::MultilineOption);
    const QString text = contentOf(u"docs/sandbox.md"_s);
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
