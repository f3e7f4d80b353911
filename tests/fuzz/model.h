#ifndef MODEL_H
#define MODEL_H

#include "corvane.h"
#include "places.h"
#include "plainnetwork.h"

// What the library has to make of a reply, stated a second time and independently of its code. The
// targets compile without access control: the operations are the class's private ones.
namespace Model {

// A finished reply, as the network layer tells it.
using Answer = PlainNetwork::Outcome;

// What a client remembers of its calls.
struct State
{
    QString currentVersion;
    Places::Kind place = Places::NewFile;
};

// The one line that SignalLog has to show for the answer.
QString line(Corvane::Operation operation, const Answer &answer, const State &state,
             const Places &places);
// Whether the body has to end up at the state's place.
bool isSaved(Corvane::Operation operation, const Answer &answer, const State &state);

constexpr Corvane::Operation operations[] = {
    Corvane::Usage,           Corvane::UpdateCheck,   Corvane::UpdateDownload,
    Corvane::PurchasePlans,   Corvane::PurchaseStart, Corvane::PurchaseResume,
    Corvane::PurchaseCapture,
};

} // namespace Model

#endif // MODEL_H
