#ifndef TARGET_H
#define TARGET_H

#include <QtCore/qcoreapplication.h>
#include <QtCore/qstring.h>
#include <QtCore/qstringlist.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// The two functions of a fuzz target, called by libFuzzer or by replay.cpp.
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

// What all targets do with their inputs.
namespace Target {

// The application is never deleted: libFuzzer ends with exit(), after which no order of destruction
// is ours.
// NOLINTNEXTLINE(readability-non-const-parameter): QCoreApplication takes argc by reference
inline int initialize(int *argc, char ***argv, QtMessageHandler handler)
{
    static const auto *const application = new QCoreApplication(*argc, *argv);
    Q_UNUSED(application)
    qInstallMessageHandler(handler);
    return 0;
}

[[noreturn]] inline void fail(const QString &problem)
{
    std::fprintf(stderr, "%s\n", qPrintable(problem));
    std::abort();
}

// A message handler: the library prints nothing, and makes nothing print.
inline void refuseMessage(QtMsgType, const QMessageLogContext &, const QString &text)
{
    fail(QStringLiteral("A message: ") + text);
}

inline QString quoted(const QString &text)
{
    return text;
}

inline QString quoted(const QStringList &lines)
{
    return lines.join(u'\n');
}

inline QString quoted(const QByteArray &bytes)
{
    return QString::fromUtf8(bytes.toPercentEncoding(" !\"#$&'()*+,/:;<=>?@[]{|}"));
}

// Whether anything has been compared so far.
inline bool judged = false;

template <typename T> void expect(const char *what, const T &actual, const T &expected)
{
    judged = true;
    if (actual == expected)
        return;
    fail(QStringLiteral("%1\n--- actual:\n%2\n--- expected:\n%3")
             .arg(QString::fromUtf8(what), quoted(actual), quoted(expected)));
}

inline void expect(const char *what, bool holds)
{
    if (!holds)
        fail(QStringLiteral("Does not hold: ") + QString::fromUtf8(what));
}

// Takes an input apart from its start.
class Input
{
public:
    Input(const std::uint8_t *data, std::size_t size)
        : m_rest(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size))
    {
    }
    explicit Input(const QByteArray &bytes)
        : m_rest(bytes)
    {
    }

    bool atEnd() const { return m_rest.isEmpty(); }

    // One byte; 'a', which stands for the first choice everywhere, at the end.
    char letter()
    {
        const char letter = m_rest.isEmpty() ? 'a' : m_rest.front();
        m_rest = m_rest.mid(1);
        return letter;
    }

    // Up to the separator, which is left out, or to the end.
    QByteArray until(char separator)
    {
        const qsizetype at = m_rest.indexOf(separator);
        QByteArray part = at < 0 ? m_rest : m_rest.left(at);
        m_rest = at < 0 ? QByteArray() : m_rest.mid(at + 1);
        return part;
    }

    const QByteArray &rest() const { return m_rest; }

private:
    QByteArray m_rest;
};

// 'a' chooses the first, 'b' the second, and every other byte one of them too.
template <typename T, std::size_t N> const T &choice(const T (&choices)[N], char letter)
{
    return choices[static_cast<unsigned char>(letter - 'a') % N];
}

} // namespace Target

#endif // TARGET_H
