// A program that does nothing, with one library or another, to be started many times.
#include <QtCore/qobject.h>

#ifdef WITH_CORVANE
#include <corvane.h>
using Linked = Corvane;
#else
#include <QtNetwork/qnetworkaccessmanager.h>
using Linked = QNetworkAccessManager;
#endif

int main(int argc, char **)
{
    // Asks something of the library, for the linker would leave out one that is not used.
    return argc > 1 ? Linked::staticMetaObject.methodCount() : 0;
}
