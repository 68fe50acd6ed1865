#pragma once

// A polkit authentication agent for this process alone that answers with given
// credentials instead of asking anyone. It lives on a GLib main loop of its own,
// in a thread of its own, from start() until finish() or destruction; nothing of
// GLib shows through this header.

#include <QByteArray>
#include <QString>

#include <memory>

namespace platform {

class PolkitCredentialAgent {
public:
    enum class Outcome {
        NotAsked,       // polkit never asked us
        OtherAction,    // polkit asked only for actions other than ours
        Refused,        // the user is not among the identities offered, or PAM said no
        Authenticated,  // PAM accepted the password of an offered identity
    };

    // Answers only authentications for the action ACTION_ID. The password is
    // wiped from memory when the agent ends.
    PolkitCredentialAgent(const QString &user, QByteArray password, const QByteArray &actionId);
    ~PolkitCredentialAgent();
    PolkitCredentialAgent(const PolkitCredentialAgent &) = delete;
    PolkitCredentialAgent &operator=(const PolkitCredentialAgent &) = delete;

    // Registers the agent with polkit for this process; false with a reason when
    // there is no system bus or polkit refused the registration.
    bool start(QString *error = nullptr);
    // Unregisters the agent, ends its loop and thread, and tells what polkit asked.
    Outcome finish();

    struct Private;

private:
    std::unique_ptr<Private> d;
};

}  // namespace platform
