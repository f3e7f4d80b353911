#include "files.h"
#include "host.h"

#include <QtCore/qdir.h>
#include <QtCore/qdiriterator.h>
#include <QtCore/qprocess.h>
#include <QtCore/qregularexpression.h>
#include <QtCore/qscopeguard.h>
#include <QtCore/qstandardpaths.h>
#include <QtCore/qtemporarydir.h>
#include <QtTest/qtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <filesystem>
#include <vector>

#include <fcntl.h>
#include <linux/capability.h>
#include <linux/fs.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/fsuid.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

// Downloads against the disk: what is saved, what is refused, and what was there before. A file
// that cannot be opened ends in networkError(), a failed write in updateDownloaded() all the same.
//
// Run by root, every function runs twice: as root, whom permissions do not stop, and with the file
// access of nobody.
class tst_Disk : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data();
    void init();
    void cleanup();
    void anyNameIsSavedOrRefused_data();
    void anyNameIsSavedOrRefused();
    void nullInANameIsWhatTheFileClassMakesOfIt_data();
    void nullInANameIsWhatTheFileClassMakesOfIt();
    void longestPathIsSaved_data();
    void longestPathIsSaved();
    void relativeNameIsTakenLiterally_data();
    void relativeNameIsTakenLiterally();
    void permissionsDecide_data();
    void permissionsDecide();
    void fileOfAnotherOwnerKeepsItsOwner();
    void protectedFileIsLeftAlone_data();
    void protectedFileIsLeftAlone();
    void fullFileSystemGoesUnreported_data();
    void fullFileSystemGoesUnreported();
    void fileSystemWithoutRoomForANameIsReported();
    void readOnlyFileSystemIsReported();
    void fileSizeLimitGoesUnreported_data();
    void fileSizeLimitGoesUnreported();
    void fullDeviceGoesUnreported();
    void exhaustedDescriptorsAreReported();
    void newFilesHaveDefaultPermissions_data();
    void newFilesHaveDefaultPermissions();
    void existingFileIsOverwrittenInPlace();
    void fileIsSavedThoughOpenElsewhere_data();
    void fileIsSavedThoughOpenElsewhere();
    void runningProgramIsLeftAlone();
    void readerOfAFifoGetsTheBody();
    void socketIsRefused();
};

namespace {

constexpr uid_t nobody = 65534;
constexpr qsizetype page = 4096;

// What the access to files is checked against, for this thread alone, so that mounts and limits
// remain root's to set up.
void setFileUser(uid_t user)
{
    ::setfsgid(user);
    ::setfsuid(user);
}

bool isRoot()
{
    return ::geteuid() == 0;
}

// Whether permissions stop this thread.
bool isPrivileged()
{
    return ::setfsuid(static_cast<uid_t>(-1)) == 0;
}

QByteArray native(const QString &path)
{
    return QFile::encodeName(path);
}

struct stat statusOf(const QString &path)
{
    struct stat status = {};
    if (::lstat(native(path).constData(), &status) != 0)
        qFatal("%s has no status", native(path).constData());
    return status;
}

mode_t modeOf(const QString &path)
{
    return statusOf(path).st_mode & 07777;
}

void setMode(const QString &path, mode_t mode)
{
    QCOMPARE(::chmod(native(path).constData(), mode), 0);
}

QByteArray describe(const std::filesystem::path &path)
{
    const auto status = std::filesystem::symlink_status(path);
    if (std::filesystem::is_symlink(status))
        return " -> " + QByteArray::fromStdString(std::filesystem::read_symlink(path).string());
    if (std::filesystem::is_directory(status))
        return "/";
    if (!std::filesystem::is_regular_file(status))
        return " (special)";
    QFile file(path);
    return ": " + (file.open(QIODevice::ReadOnly) ? file.readAll() : "(cannot be read)");
}

// One line for everything in the directory, at any depth, sorted.
QByteArrayList contentsOf(const QString &dir)
{
    const std::filesystem::path root(native(dir).toStdString());
    QByteArrayList lines;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(root))
        lines.append(QByteArray::fromStdString(entry.path().lexically_relative(root).string())
                     + describe(entry.path()));
    std::sort(lines.begin(), lines.end());
    return lines;
}

// What went, with a minus, then what came, with a plus.
QByteArrayList changesIn(const QString &dir, const QByteArrayList &before)
{
    const QByteArrayList after = contentsOf(dir);
    QByteArrayList changes;
    for (const QByteArray &line : before) {
        if (!after.contains(line))
            changes.append('-' + line);
    }
    for (const QByteArray &line : after) {
        if (!before.contains(line))
            changes.append('+' + line);
    }
    return changes;
}

const auto cannotSave = SignalLog::networkError(u"Impossibile salvare aggiornamento."_s);

// The signals of one download to the path.
QStringList download(const QString &path, const QByteArray &body = "body")
{
    Host host;
    host.server.script(LoopbackServer::response(200, body));
    host.client.downloadUpdate(host.server.url(), path);
    return host.log.settled();
}

QStringList saved(const QString &path)
{
    return {SignalLog::updateDownloaded(path)};
}

QStringList outcome(bool isSaved, const QString &path)
{
    return isSaved ? saved(path) : QStringList{cannotSave};
}

QByteArray bytes(qsizetype count)
{
    QByteArray bytes(count, Qt::Uninitialized);
    for (qsizetype i = 0; i < count; ++i)
        bytes[i] = static_cast<char>(i * 31 / 7);
    return bytes;
}

// Before any thread exists: where this process alone sees what it mounts. Other than root can have
// that as the root of a user namespace, and keeps no power over files from it.
void leaveTheMountsOfOthers()
{
    const uid_t user = ::geteuid();
    const gid_t group = ::getegid();
    if (::unshare(isRoot() ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) != 0)
        return;
    ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    if (user == 0)
        return;

    const auto write = [](const QString &path, const QByteArray &line) {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(line) != line.size())
            qFatal("%s cannot be written", qPrintable(path));
    };
    const auto itself = [](auto id) {
        const QByteArray text = QByteArray::number(id);
        return text + ' ' + text + " 1";
    };
    write(u"/proc/self/setgroups"_s, "deny");
    write(u"/proc/self/uid_map"_s, itself(user));
    write(u"/proc/self/gid_map"_s, itself(group));
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct capabilities[_LINUX_CAPABILITY_U32S_3] = {};
    capabilities[0].effective = capabilities[0].permitted = 1U << CAP_SYS_ADMIN;
    if (::syscall(SYS_capset, &header, capabilities) != 0)
        qFatal("Capabilities cannot be given up");
}

// A file system of its own in memory, at a directory, for as long as this lives.
class SmallDisk
{
public:
    SmallDisk(const QString &dir, const char *options)
        : m_dir(native(dir))
        , m_mounted(::mount("none", m_dir.constData(), "tmpfs", 0, options) == 0)
    {
    }
    ~SmallDisk()
    {
        if (m_mounted)
            ::umount2(m_dir.constData(), MNT_DETACH);
    }
    Q_DISABLE_COPY_MOVE(SmallDisk)

    bool isMounted() const { return m_mounted; }
    bool makeReadOnly() const
    {
        return ::mount(nullptr, m_dir.constData(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
    }

private:
    const QByteArray m_dir;
    const bool m_mounted;
};

class Descriptor
{
public:
    Descriptor(const QString &path, int flags)
        : m_descriptor(::open(native(path).constData(), flags | O_CLOEXEC))
    {
    }
    ~Descriptor() { ::close(m_descriptor); }
    Q_DISABLE_COPY_MOVE(Descriptor)

    operator int() const { return m_descriptor; }

private:
    const int m_descriptor;
};

bool setInodeFlag(const QString &path, int flag, bool on)
{
    const Descriptor file(path, O_RDONLY);
    int flags = 0;
    if (::ioctl(file, FS_IOC_GETFLAGS, &flags) != 0)
        return false;
    flags = on ? flags | flag : flags & ~flag;
    return ::ioctl(file, FS_IOC_SETFLAGS, &flags) == 0;
}

} // namespace

void tst_Disk::initTestCase_data()
{
    QTest::addColumn<uid_t>("user");

    QTest::newRow(isRoot() ? "as-root" : "as-user") << ::geteuid();
    if (isRoot())
        QTest::newRow("as-nobody") << nobody;
}

void tst_Disk::init()
{
    QTest::failOnWarning(QRegularExpression(u".*"_s));
    QFETCH_GLOBAL(uid_t, user);
    setFileUser(user);
}

void tst_Disk::cleanup()
{
    setFileUser(::geteuid());
}

void tst_Disk::anyNameIsSavedOrRefused_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("isSaved");
    QTest::addColumn<QByteArrayList>("changes");

    const auto savedAt = [](const char *tag, const QString &name, const QByteArrayList &changes) {
        QTest::newRow(tag) << name << true << changes;
    };
    const auto refused = [](const char *tag, const QString &name,
                            const QByteArrayList &changes = {}) {
        QTest::newRow(tag) << name << false << changes;
    };

    savedAt("new-file", u"new"_s, {"+new: body"});
    savedAt("existing-file", u"file"_s, {"-file: old", "+file: body"});
    refused("directory", u"dir"_s);
    refused("directory-with-slash", u"dir/"_s);
    refused("below-a-file", u"file/below"_s);
    refused("far-below-a-file", u"file/a/b/c"_s);
    refused("file-with-slash", u"file/"_s);
    refused("new-with-slash", u"new/"_s, {"+new/"});

    savedAt("link-to-file", u"to-file"_s, {"-file: old", "+file: body"});
    refused("link-to-directory", u"to-dir"_s);
    savedAt("below-link-to-directory", u"to-dir/new"_s, {"+dir/new: body"});
    savedAt("new-directory-below-link", u"to-dir/a/new"_s, {"+dir/a/", "+dir/a/new: body"});
    savedAt("dangling-link", u"to-nothing"_s, {"+nothing: body"});
    refused("below-dangling-link", u"to-nothing/new"_s);
    refused("link-into-missing-directory", u"to-missing"_s);
    refused("link-to-itself", u"loop"_s);
    refused("below-link-to-itself", u"loop/new"_s);
    refused("links-to-each-other", u"ping"_s);

    savedAt("dots-between", u"dir/.././new"_s, {"+new: body"});
    refused("dots-after-missing", u"missing/../new"_s);
    refused("one-dot", u"."_s);
    refused("two-dots", u".."_s);
    refused("one-dot-in-directory", u"dir/."_s);
    refused("two-dots-in-missing", u"missing/.."_s);
    savedAt("three-dots", u"..."_s, {"+...: body"});
    savedAt("not-clean", u"./a//new"_s, {"+a/", "+a/new: body"});

    savedAt("blanks", u" new "_s, {"+ new : body"});
    savedAt("line-break", u"a\nb"_s, {"+a\nb: body"});
    savedAt("control-characters", u"\x01\t\x7F"_s, {"+\x01\t\x7F: body"});
    savedAt("backslash", u"a\\b"_s, {"+a\\b: body"});
    savedAt("shell-characters", u"$(x) * ~ ;'\""_s, {"+$(x) * ~ ;'\": body"});
    savedAt("accents", u"\u00E8"_s, {"+\xC3\xA8: body"});
    savedAt("accents-decomposed", u"e\u0300"_s, {"+e\xCC\x80: body"});
    savedAt("beyond-the-basic-plane", u"\U0001F600"_s, {"+\xF0\x9F\x98\x80: body"});
    const QString surrogate(QChar(0xD800));
    savedAt("lone-surrogate", u'a' + surrogate, {"+" + native(u'a' + surrogate) + ": body"});

    const QString letters(255, u'x');
    savedAt("name-255-bytes", letters, {"+" + letters.toLatin1() + ": body"});
    refused("name-256-bytes", letters + u'x');
    refused("name-256-bytes-in-128-characters", QString(128, u'\u00E8'));
    refused("below-name-256-bytes", letters + u"x/new"_s);
    refused("name-256-bytes-in-new-directories", u"a/b/"_s + letters + u'x', {"+a/", "+a/b/"});
}

// In a directory that holds an old file, a directory and links.
void tst_Disk::anyNameIsSavedOrRefused()
{
    QFETCH(QString, name);
    QFETCH(bool, isSaved);
    QFETCH(QByteArrayList, changes);

    QTemporaryDir outer; // where ".." is nobody else's
    QVERIFY(QDir(outer.path()).mkdir(u"d"_s));
    const QDir dir(outer.filePath(u"d"_s));
    Files::write(dir.filePath(u"file"_s), "old");
    QVERIFY(dir.mkdir(u"dir"_s));
    const auto link = [&dir](const char *target, const char *at) {
        QCOMPARE(::symlink(target, native(dir.filePath(QString::fromLatin1(at))).constData()), 0);
    };
    link("file", "to-file");
    link("dir", "to-dir");
    link("nothing", "to-nothing");
    link("missing/nothing", "to-missing");
    link("loop", "loop");
    link("pong", "ping");
    link("ping", "pong");
    const QByteArrayList before = contentsOf(dir.path());

    const QString path = dir.path() + u'/' + name;
    QCOMPARE(download(path), outcome(isSaved, path));
    QCOMPARE(changesIn(dir.path(), before), changes);
}

void tst_Disk::nullInANameIsWhatTheFileClassMakesOfIt_data()
{
    QTest::addColumn<QString>("name");

    QTest::newRow("in-name") << u"a\0b"_s;
    QTest::newRow("in-directory") << u"a\0b/new"_s;
    QTest::newRow("first") << u"\0b"_s;
}

// In today's versions of Qt: a warning, and the name ends there.
void tst_Disk::nullInANameIsWhatTheFileClassMakesOfIt()
{
    QFETCH(QString, name);

    QTemporaryDir dir;
    QTemporaryDir plain;
    const QString path = dir.path() + u'/' + name;
    const auto handler = qInstallMessageHandler([](auto, auto &, auto &) {});
    QFile file(plain.path() + u'/' + name);
    const bool isSaved =
        file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write("body") == 4;
    file.close();
    const QStringList lines = download(path);
    qInstallMessageHandler(handler);

    QCOMPARE(lines, outcome(isSaved, path));
    QCOMPARE(contentsOf(dir.path()), contentsOf(plain.path()));
}

void tst_Disk::longestPathIsSaved_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<bool>("isSaved");

    QTest::newRow("longest") << PATH_MAX - 1 << true; // and its null
    QTest::newRow("too-long") << PATH_MAX << false;
}

void tst_Disk::longestPathIsSaved()
{
    QFETCH(int, size);
    QFETCH(bool, isSaved);

    QTemporaryDir dir;
    QString path = dir.path();
    while (path.size() < size - 200)
        path += u'/' + QString(100, u'd');
    path += u'/' + QString(size - path.size() - 1, u'f');
    QCOMPARE(path.size(), size);
    QCOMPARE(download(path), outcome(isSaved, path));
    QCOMPARE(Files::contentOf(path), isSaved ? "body" : "(cannot be read)");
    if (!isSaved) // under no other name either
        QVERIFY(!QDirIterator(dir.path(), QDir::Files, QDirIterator::Subdirectories).hasNext());
}

void tst_Disk::relativeNameIsTakenLiterally_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("isSaved");
    QTest::addColumn<QByteArrayList>("changes");

    QTest::newRow("url") << u"file:///new"_s << true
                         << QByteArrayList{"+file:/", "+file:/new: body"};
    QTest::newRow("home") << u"~/new"_s << true << QByteArrayList{"+~/", "+~/new: body"};
    QTest::newRow("drive") << u"C:new"_s << true << QByteArrayList{"+C:new: body"};
    QTest::newRow("resource") << u":/new"_s << false << QByteArrayList{"+:/"};
}

void tst_Disk::relativeNameIsTakenLiterally()
{
    QFETCH(QString, name);
    QFETCH(bool, isSaved);
    QFETCH(QByteArrayList, changes);

    QTemporaryDir dir;
    const QString before = QDir::currentPath();
    QVERIFY(QDir::setCurrent(dir.path()));
    const auto restore = qScopeGuard([&before] { QDir::setCurrent(before); });
    QCOMPARE(download(name), outcome(isSaved, name));
    QCOMPARE(changesIn(dir.path(), {}), changes);
}

void tst_Disk::permissionsDecide_data()
{
    QTest::addColumn<mode_t>("dirMode");
    QTest::addColumn<mode_t>("fileMode");
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("isSavedByAll");

    QTest::newRow("file-not-writable") << mode_t(0755) << mode_t(0444) << u"file"_s << false;
    QTest::newRow("file-not-readable") << mode_t(0755) << mode_t(0222) << u"file"_s << true;
    QTest::newRow("file-without-any") << mode_t(0755) << mode_t(0) << u"file"_s << false;
    QTest::newRow("old-file-in-directory-not-writable")
        << mode_t(0555) << mode_t(0644) << u"file"_s << true;
    QTest::newRow("new-file-in-directory-not-writable")
        << mode_t(0555) << mode_t(0644) << u"new"_s << false;
    QTest::newRow("new-directory-in-directory-not-writable")
        << mode_t(0555) << mode_t(0644) << u"a/b/new"_s << false;
    QTest::newRow("directory-not-listable") << mode_t(0333) << mode_t(0644) << u"new"_s << true;
    QTest::newRow("directory-not-searchable") << mode_t(0666) << mode_t(0644) << u"file"_s << false;
    QTest::newRow("directory-without-any") << mode_t(0) << mode_t(0644) << u"file"_s << false;
}

void tst_Disk::permissionsDecide()
{
    QFETCH(mode_t, dirMode);
    QFETCH(mode_t, fileMode);
    QFETCH(QString, name);
    QFETCH(bool, isSavedByAll);

    QTemporaryDir dir;
    Files::write(dir.filePath(u"file"_s), "old");
    const QByteArrayList before = contentsOf(dir.path());
    setMode(dir.filePath(u"file"_s), fileMode);
    setMode(dir.path(), dirMode);
    const auto restore = qScopeGuard([&dir] { setMode(dir.path(), 0755); });

    const bool isSaved = isSavedByAll || isPrivileged();
    const QString path = dir.filePath(name);
    QCOMPARE(download(path), outcome(isSaved, path));

    setMode(dir.path(), 0755);
    QCOMPARE(modeOf(dir.filePath(u"file"_s)), fileMode);
    setMode(dir.filePath(u"file"_s), 0644);
    QCOMPARE(contentsOf(dir.path()).contains(name.toLatin1() + ": body"), isSaved);
    if (!isSaved)
        QCOMPARE(contentsOf(dir.path()), before);
}

void tst_Disk::fileOfAnotherOwnerKeepsItsOwner()
{
    if (!isRoot())
        QSKIP("Only root can make a file that belongs to somebody else");

    QFETCH_GLOBAL(uid_t, user);
    QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    Files::write(path, "old");
    constexpr uid_t other = 12345;
    setFileUser(0);
    QCOMPARE(::chown(native(path).constData(), other, other), 0);
    setFileUser(user);

    QCOMPARE(download(path), outcome(isPrivileged(), path));
    QCOMPARE(Files::contentOf(path), isPrivileged() ? "body" : "old");
    QCOMPARE(statusOf(path).st_uid, other);
}

void tst_Disk::protectedFileIsLeftAlone_data()
{
    QTest::addColumn<int>("flag");

    QTest::newRow("immutable") << FS_IMMUTABLE_FL;
    QTest::newRow("append-only") << FS_APPEND_FL;
}

// Against these, root can do nothing either.
void tst_Disk::protectedFileIsLeftAlone()
{
    QFETCH(int, flag);

    QFETCH_GLOBAL(uid_t, user);
    QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    Files::write(path, "old");
    const auto restore = qScopeGuard([&path, flag] {
        setFileUser(::geteuid());
        setInodeFlag(path, flag, false);
    });
    setFileUser(::geteuid());
    if (!setInodeFlag(path, flag, true))
        QSKIP("No file can be protected here: that needs root, and a file system that can do it");
    setFileUser(user);

    QCOMPARE(download(path), QStringList{cannotSave});
    QCOMPARE(Files::contentOf(path), "old");
}

void tst_Disk::fullFileSystemGoesUnreported_data()
{
    QTest::addColumn<qsizetype>("free"); // of 256 KiB
    QTest::addColumn<qsizetype>("body");
    QTest::addColumn<bool>("exists"); // one page of it
    QTest::addColumn<qsizetype>("size");

    QTest::newRow("new-file-cut-short") << 5 * page << 100 * page << false << 5 * page;
    QTest::newRow("old-file-cut-short") << 5 * page << 100 * page << true << 6 * page;
    QTest::newRow("old-file-makes-room") << 0 * page << page << true << page;
    QTest::newRow("new-file-without-a-byte") << 0 * page << 100 * page << false << 0 * page;
    // Less than a file buffers: it is written after the signal.
    QTest::newRow("small-new-file-without-a-byte") << 0 * page << page << false << 0 * page;
    QTest::newRow("small-new-file-cut-short") << page << 2 * page << false << page;
}

void tst_Disk::fullFileSystemGoesUnreported()
{
    QFETCH(qsizetype, free);
    QFETCH(qsizetype, body);
    QFETCH(bool, exists);
    QFETCH(qsizetype, size);

    QTemporaryDir dir;
    const SmallDisk disk(dir.path(), "size=256k,mode=0777");
    if (!disk.isMounted())
        QSKIP("No file system can be mounted here");
    const QString path = dir.filePath(u"file"_s);
    if (exists)
        Files::write(path, QByteArray(page, 'o'));
    Files::write(dir.filePath(u"rest"_s),
                 QByteArray((256 << 10) - free - (exists ? page : 0), 'r'));

    const QByteArray content = bytes(body);
    QCOMPARE(download(path, content), saved(path));
    QVERIFY(Files::contentOf(path) == content.left(size));
    QCOMPARE(QDir(dir.path()).entryList(QDir::Files), (QStringList{u"file"_s, u"rest"_s}));
}

void tst_Disk::fileSystemWithoutRoomForANameIsReported()
{
    QTemporaryDir dir;
    // The root of it, and the file.
    const SmallDisk disk(dir.path(), "size=256k,nr_inodes=2,mode=0777");
    if (!disk.isMounted())
        QSKIP("No file system can be mounted here");
    Files::write(dir.filePath(u"file"_s), "old");

    QCOMPARE(download(dir.filePath(u"new"_s)), QStringList{cannotSave});
    QCOMPARE(download(dir.filePath(u"a/new"_s)), QStringList{cannotSave});
    QCOMPARE(contentsOf(dir.path()), QByteArrayList{"file: old"});
}

void tst_Disk::readOnlyFileSystemIsReported()
{
    QTemporaryDir dir;
    const SmallDisk disk(dir.path(), "size=256k,mode=0777");
    if (!disk.isMounted())
        QSKIP("No file system can be mounted here");
    Files::write(dir.filePath(u"file"_s), "old");
    QVERIFY(disk.makeReadOnly());

    QCOMPARE(download(dir.filePath(u"file"_s)), QStringList{cannotSave});
    QCOMPARE(download(dir.filePath(u"new"_s)), QStringList{cannotSave});
    QCOMPARE(download(dir.filePath(u"a/new"_s)), QStringList{cannotSave});
    QCOMPARE(contentsOf(dir.path()), QByteArrayList{"file: old"});
}

void tst_Disk::fileSizeLimitGoesUnreported_data()
{
    QTest::addColumn<qsizetype>("limit");
    QTest::addColumn<qsizetype>("body");

    QTest::newRow("cut-short") << qsizetype(100'000) << qsizetype(1'000'000);
    QTest::newRow("small-cut-short") << qsizetype(1000) << qsizetype(2000);
    QTest::newRow("nothing") << qsizetype(0) << qsizetype(1'000'000);
}

void tst_Disk::fileSizeLimitGoesUnreported()
{
    QFETCH(qsizetype, limit);
    QFETCH(qsizetype, body);

    QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    Files::write(path, "old");
    const QByteArray content = bytes(body);

    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    rlimit before = {};
    QCOMPARE(::getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit lower{static_cast<rlim_t>(limit), before.rlim_max};
    QCOMPARE(::setrlimit(RLIMIT_FSIZE, &lower), 0);
    const QStringList lines = download(path, content);
    QCOMPARE(::setrlimit(RLIMIT_FSIZE, &before), 0);
    std::signal(SIGXFSZ, handler);

    QCOMPARE(lines, saved(path));
    QVERIFY(Files::contentOf(path) == content.left(limit));
}

// A device that takes no byte, as a full disk does. Root gets one of its own: a client that
// replaces what it writes to would take the system's from everybody.
void tst_Disk::fullDeviceGoesUnreported()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"full"_s);
    if (!isPrivileged())
        QVERIFY(QFile::link(u"/dev/full"_s, path));
    else if (::mknod(native(path).constData(), S_IFCHR | 0666, makedev(1, 7)) != 0
             || Descriptor(path, O_WRONLY) < 0)
        QSKIP("No device can be made here");
    const QByteArrayList before = contentsOf(dir.path());

    QCOMPARE(download(path, bytes(1 << 20)), saved(path));
    QCOMPARE(contentsOf(dir.path()), before);
}

void tst_Disk::exhaustedDescriptorsAreReported()
{
#if defined(__SANITIZE_ADDRESS__)
    QSKIP("The checks of the sanitizer need descriptors themselves");
#endif
    QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    Files::write(path, "old");
    Host host;
    host.client.downloadUpdate(host.server.url(), path);
    QVERIFY(host.server.waitForRequests(1));

    rlimit before = {};
    QCOMPARE(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const rlimit lower{256, before.rlim_max};
    QCOMPARE(::setrlimit(RLIMIT_NOFILE, &lower), 0);
    std::vector<int> taken;
    for (int descriptor = -1; (descriptor = ::dup(STDERR_FILENO)) >= 0;)
        taken.push_back(descriptor);
    const int error = errno;
    host.server.reply(0, LoopbackServer::response(200, "body"));
    const QStringList lines = host.log.settled();
    for (const int descriptor : taken)
        ::close(descriptor);
    ::setrlimit(RLIMIT_NOFILE, &before);

    QCOMPARE(error, EMFILE);
    QCOMPARE(lines, QStringList{cannotSave});
    QCOMPARE(contentsOf(dir.path()), QByteArrayList{"file: old"});
}

void tst_Disk::newFilesHaveDefaultPermissions_data()
{
    QTest::addColumn<mode_t>("mask");

    QTest::newRow("none") << mode_t(0);
    QTest::newRow("usual") << mode_t(022);
    QTest::newRow("private") << mode_t(077);
}

void tst_Disk::newFilesHaveDefaultPermissions()
{
    QFETCH(mode_t, mask);

    QTemporaryDir dir;
    const QString path = dir.filePath(u"a/b/file"_s);
    const mode_t before = ::umask(mask);
    const QStringList lines = download(path);
    ::umask(before);

    QCOMPARE(lines, saved(path));
    QCOMPARE(modeOf(path), 0666 & ~mask);
    QCOMPARE(modeOf(dir.filePath(u"a"_s)), 0777 & ~mask);
    QCOMPARE(modeOf(dir.filePath(u"a/b"_s)), 0777 & ~mask);
}

void tst_Disk::existingFileIsOverwrittenInPlace()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    const QString other = dir.filePath(u"other-name"_s);
    Files::write(path, "old");
    setMode(path, 0750);
    QCOMPARE(::link(native(path).constData(), native(other).constData()), 0);
    const ino_t inode = statusOf(path).st_ino;

    QCOMPARE(download(path), saved(path));
    QCOMPARE(statusOf(path).st_ino, inode);
    QCOMPARE(modeOf(path), mode_t(0750));
    QCOMPARE(contentsOf(dir.path()), (QByteArrayList{"file: body", "other-name: body"}));
}

void tst_Disk::fileIsSavedThoughOpenElsewhere_data()
{
    QTest::addColumn<int>("flags");
    QTest::addColumn<bool>("isLocked");
    QTest::addColumn<QByteArray>("content"); // after "more" was written where "old" ended

    QTest::newRow("reader") << O_RDONLY << false << QByteArray("body");
    QTest::newRow("locked-by-reader") << O_RDONLY << true << QByteArray("body");
    QTest::newRow("writer") << O_RDWR << false << QByteArray("bodmore");
    QTest::newRow("locked-by-writer") << O_RDWR << true << QByteArray("bodmore");
    QTest::newRow("appender") << (O_RDWR | O_APPEND) << true << QByteArray("bodymore");
}

// The locks of Unix are only for those who ask for them.
void tst_Disk::fileIsSavedThoughOpenElsewhere()
{
    QFETCH(int, flags);
    QFETCH(bool, isLocked);
    QFETCH(QByteArray, content);

    QTemporaryDir dir;
    const QString path = dir.filePath(u"file"_s);
    Files::write(path, "old");
    const Descriptor elsewhere(path, flags);
    QVERIFY(elsewhere >= 0);
    QCOMPARE(::lseek(elsewhere, 3, SEEK_SET), 3);
    if (isLocked)
        QCOMPARE(::flock(elsewhere, LOCK_EX | LOCK_NB), 0);

    QCOMPARE(download(path), saved(path));
    QCOMPARE(::write(elsewhere, "more", 4), (flags & O_ACCMODE) == O_RDONLY ? -1 : 4);
    QByteArray seen(100, '\0');
    seen.truncate(::pread(elsewhere, seen.data(), 100, 0));
    QCOMPARE(seen, content);
    QCOMPARE(Files::contentOf(path), content);
}

void tst_Disk::runningProgramIsLeftAlone()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"program"_s);
    QVERIFY(QFile::copy(QStandardPaths::findExecutable(u"cat"_s), path));
    setMode(path, 0755);
    const QByteArray before = Files::contentOf(path);
    QProcess program;
    program.start(path, {});
    QVERIFY(program.waitForStarted());
    const auto end = qScopeGuard([&program] {
        program.closeWriteChannel(); // what it reads to the end of
        program.waitForFinished();
    });
    const Descriptor writer(path, O_WRONLY);
    if (writer >= 0)
        QSKIP("This kernel lets running programs be written to");
    QCOMPARE(errno, ETXTBSY);

    QCOMPARE(download(path), QStringList{cannotSave});
    QVERIFY(Files::contentOf(path) == before);
}

// Without a reader the call of the system that opens it would not return, nor would the host.
void tst_Disk::readerOfAFifoGetsTheBody()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"fifo"_s);
    QCOMPARE(::mkfifo(native(path).constData(), 0600), 0);
    const Descriptor reader(path, O_RDONLY | O_NONBLOCK);

    const QByteArray body = bytes(40'000); // fits into it
    QCOMPARE(download(path, body), saved(path));
    QByteArray got(100'000, '\0');
    got.truncate(::read(reader, got.data(), 100'000));
    QVERIFY(got == body);
    QCOMPARE(contentsOf(dir.path()), QByteArrayList{"fifo (special)"});
}

void tst_Disk::socketIsRefused()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"socket"_s);
    const QByteArray name = native(path);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    QVERIFY(name.size() < qsizetype(sizeof address.sun_path));
    std::copy(name.cbegin(), name.cend(), address.sun_path);
    const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const auto end = qScopeGuard([socket] { ::close(socket); });
    QCOMPARE(::bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);

    QCOMPARE(download(path), QStringList{cannotSave});
    QCOMPARE(contentsOf(dir.path()), QByteArrayList{"socket (special)"});
}

int main(int argc, char *argv[])
{
    leaveTheMountsOfOthers();
    QCoreApplication app(argc, argv);
    tst_Disk test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_disk.moc"
