#include <Corvane>

Corvane *makeClient(QObject *parent);

Corvane *makeClient(QObject *parent)
{
    return new Corvane(parent);
}
