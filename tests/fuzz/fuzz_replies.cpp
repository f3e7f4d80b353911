// What the reply handler makes of a finished reply.
//
// <operation><place><error><status><body>, after a first line with the current version. The four
// are letters: 'a' is the first of its list.

#include "scriptedreply.h"
#include "signallog.h"

#include <QtCore/qpointer.h>

namespace {

void handle(Corvane &client, Corvane::Operation operation, const Model::Answer &answer)
{
    const QPointer<ScriptedReply> reply(new ScriptedReply(&client));
    client.connectReply(reply, operation);
    reply->finish(answer);
    Target::expect("the reply lives until the event loop", !reply.isNull());
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    Target::expect("the reply is gone after the event loop", reply.isNull());
}

} // namespace

int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    return Target::initialize(argc, argv, Target::refuseMessage);
}

int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static Places places;
    static auto *const client = new Corvane;

    Target::Input input(data, size);
    Model::State state;
    state.currentVersion = QString::fromUtf8(input.until('\n'));
    const Corvane::Operation operation = Target::choice(Model::operations, input.letter());
    state.place = Target::choice(Places::kinds, input.letter());
    const Model::Answer answer = ScriptedReply::answerOf(input);

    places.reset();
    client->m_currentVersion = state.currentVersion;
    client->m_downloadPath = places.path(state.place);
    SignalLog log(client);
    handle(*client, operation, answer);
    const bool saved = Model::isSaved(operation, answer, state);

    Target::expect("the signals", log.lines(),
                   QStringList(Model::line(operation, answer, state, places)));
    for (const Places::Kind kind : Places::kinds) {
        Target::expect("the files", places.content(kind),
                       saved && kind == state.place ? answer.body : Places::initialContent(kind));
    }
    return 0;
}
