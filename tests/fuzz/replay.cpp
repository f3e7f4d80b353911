// Runs a fuzz target over inputs: the files named, and those in the directories named. A failing
// input is the one whose name is printed last.

#include "target.h"

#include <QtCore/qdiriterator.h>
#include <QtCore/qfile.h>
#include <QtCore/qfileinfo.h>

namespace {

QStringList filesOf(const QString &path)
{
    if (!QFileInfo(path).isDir())
        return {path};
    QStringList files;
    for (QDirIterator it(path, QDir::Files); it.hasNext();)
        files.append(it.next());
    files.sort();
    return files;
}

void run(const QString &path)
{
    std::fprintf(stderr, "%s\n", qPrintable(path));
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        Target::fail(file.errorString());
    const QByteArray input = file.readAll();
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t *>(input.constData()),
                           static_cast<std::size_t>(input.size()));
}

} // namespace

int main(int argc, char **argv)
{
    LLVMFuzzerInitialize(&argc, &argv);
    QStringList files;
    for (int i = 1; i < argc; ++i)
        files += filesOf(QFile::decodeName(argv[i]));
    if (files.isEmpty())
        Target::fail(QStringLiteral("No inputs to replay"));
    for (const QString &file : std::as_const(files))
        run(file);
    // Single inputs may go unjudged: those whose calls the network holds, or is slow to end.
    if (!Target::judged)
        Target::fail(QStringLiteral("No input was judged"));
    return 0;
}
