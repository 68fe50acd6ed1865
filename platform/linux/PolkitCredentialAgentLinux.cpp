#include "platform/linux/PolkitCredentialAgentLinux.h"
#include "platform/SignalStack.h"

#define POLKIT_AGENT_I_KNOW_API_IS_SUBJECT_TO_CHANGE
#include <polkit/polkit.h>
#include <polkitagent/polkitagent.h>

#include <QFile>

#include <condition_variable>
#include <mutex>
#include <optional>
#include <pwd.h>
#include <string.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace platform {

namespace {

// Where the agent's object lives on this process's system-bus connection.
constexpr const char *kObjectPath = "/com/lanternfish/Mendwell/CredentialAgent";

// polkit takes one agent per process, and the object path is a single one.
std::mutex g_oneAgentAtATime;

std::optional<uid_t> userId(const QString &user)
{
    const QByteArray name = QFile::encodeName(user);
    passwd entry{};
    passwd *found = nullptr;
    std::vector<char> buffer(16384);
    if (name.isEmpty() || ::getpwnam_r(name.constData(), &entry, buffer.data(), buffer.size(), &found) != 0 ||
        !found)
        return std::nullopt;
    return found->pw_uid;
}

// One InitiateAuthentication from polkitd: its pending reply and the PAM
// conversation run for the chosen identity.
struct Attempt {
    PolkitCredentialAgent::Private *agent = nullptr;
    GTask *task = nullptr;
    PolkitAgentSession *session = nullptr;
    bool answered = false;
    bool completed = false;
};

}  // namespace

struct PolkitCredentialAgent::Private {
    std::unique_lock<std::mutex> exclusive{g_oneAgentAtATime};
    std::optional<uid_t> uid;
    QByteArray password;
    QByteArray actionId;

    GMainContext *context = nullptr;
    GMainLoop *loop = nullptr;
    std::thread thread;

    // The registration, reported by the agent's thread.
    std::mutex mutex;
    std::condition_variable changed;
    bool reported = false;
    bool registered = false;
    QString error;

    // The agent's thread alone touches these until it has been joined.
    Outcome outcome = Outcome::NotAsked;
    bool stopping = false;
    std::vector<std::unique_ptr<Attempt>> attempts;

    void run();
    void report(bool success, const GError *failure);
    void initiate(GTask *task, const gchar *action, const gchar *cookie, GList *identities);
};

namespace {

struct MendwellCredentialListener {
    PolkitAgentListener parent_instance;
    PolkitCredentialAgent::Private *agent;
};

struct MendwellCredentialListenerClass {
    PolkitAgentListenerClass parent_class;
};

G_DEFINE_TYPE(MendwellCredentialListener, mendwell_credential_listener, POLKIT_AGENT_TYPE_LISTENER)

void initiateAuthentication(PolkitAgentListener *listener, const gchar *action, const gchar *, const gchar *,
                            PolkitDetails *, const gchar *cookie, GList *identities,
                            GCancellable *cancellable, GAsyncReadyCallback callback, gpointer userData)
{
    GTask *task = g_task_new(listener, cancellable, callback, userData);
    reinterpret_cast<MendwellCredentialListener *>(listener)->agent->initiate(task, action, cookie,
                                                                              identities);
}

gboolean initiateAuthenticationFinish(PolkitAgentListener *, GAsyncResult *result, GError **error)
{
    return g_task_propagate_boolean(G_TASK(result), error);
}

void mendwell_credential_listener_init(MendwellCredentialListener *listener)
{
    listener->agent = nullptr;
}

void mendwell_credential_listener_class_init(MendwellCredentialListenerClass *listenerClass)
{
    PolkitAgentListenerClass *base = POLKIT_AGENT_LISTENER_CLASS(listenerClass);
    base->initiate_authentication = initiateAuthentication;
    base->initiate_authentication_finish = initiateAuthenticationFinish;
}

void refuse(GTask *task, gint code, const char *reason)
{
    g_task_return_new_error(task, POLKIT_ERROR, code, "%s", reason);
    g_object_unref(task);
}

void onRequest(PolkitAgentSession *session, const gchar *, gboolean, gpointer data)
{
    auto *attempt = static_cast<Attempt *>(data);
    // The password is all we have: a second question (a new password, a
    // second factor) ends the attempt instead of being answered with it.
    if (attempt->answered) {
        polkit_agent_session_cancel(session);
        return;
    }
    attempt->answered = true;
    polkit_agent_session_response(session, attempt->agent->password.constData());
}

void onCompleted(PolkitAgentSession *, gboolean gained, gpointer data)
{
    auto *attempt = static_cast<Attempt *>(data);
    if (attempt->completed)
        return;
    attempt->completed = true;
    if (!attempt->agent->stopping)
        attempt->agent->outcome =
            gained ? PolkitCredentialAgent::Outcome::Authenticated : PolkitCredentialAgent::Outcome::Refused;
    if (gained) {
        g_task_return_boolean(attempt->task, TRUE);
        g_clear_object(&attempt->task);
    } else {
        refuse(std::exchange(attempt->task, nullptr), POLKIT_ERROR_FAILED, "Authentication failed");
    }
    // The session itself stays alive until the agent ends: the helper's watch
    // that emitted this signal still uses it after we return.
}

gboolean quitLoop(gpointer loop)
{
    g_main_loop_quit(static_cast<GMainLoop *>(loop));
    return G_SOURCE_REMOVE;
}

}  // namespace

void PolkitCredentialAgent::Private::report(bool success, const GError *failure)
{
    std::lock_guard lock(mutex);
    reported = true;
    registered = success;
    if (!success)
        error = failure ? QString::fromUtf8(failure->message) : QStringLiteral("no system bus");
    changed.notify_all();
}

void PolkitCredentialAgent::Private::initiate(GTask *task, const gchar *action, const gchar *cookie,
                                              GList *identities)
{
    // The password is for the runner's action alone. Anything else (another
    // part of this process, or pkexec's generic action when our policy is not
    // installed) gets none of it.
    if (!action || actionId != action) {
        if (outcome == Outcome::NotAsked)
            outcome = Outcome::OtherAction;
        refuse(task, POLKIT_ERROR_NOT_SUPPORTED, "Not an authentication this agent answers");
        return;
    }
    PolkitIdentity *chosen = nullptr;
    for (GList *item = identities; uid && item; item = item->next) {
        PolkitIdentity *identity = POLKIT_IDENTITY(item->data);
        if (POLKIT_IS_UNIX_USER(identity) &&
            polkit_unix_user_get_uid(POLKIT_UNIX_USER(identity)) == int(*uid)) {
            chosen = identity;
            break;
        }
    }
    if (!chosen || !cookie) {
        outcome = Outcome::Refused;
        refuse(task, POLKIT_ERROR_FAILED, "The user is not one polkit accepts here");
        return;
    }
    auto attempt = std::make_unique<Attempt>();
    attempt->agent = this;
    attempt->task = task;
    attempt->session = polkit_agent_session_new(chosen, cookie);
    g_signal_connect(attempt->session, "request", G_CALLBACK(onRequest), attempt.get());
    g_signal_connect(attempt->session, "completed", G_CALLBACK(onCompleted), attempt.get());
    PolkitAgentSession *session = attempt->session;
    attempts.push_back(std::move(attempt));
    // Runs polkit's helper, which checks the password with PAM and tells polkitd.
    polkit_agent_session_initiate(session);
}

void PolkitCredentialAgent::Private::run()
{
    // Everything below (the exported object, the helper's watch, the replies)
    // is dispatched on this context, never on the default one Qt may be using.
    g_main_context_push_thread_default(context);
    GError *failure = nullptr;
    gpointer registration = nullptr;
    MendwellCredentialListener *listener = nullptr;
    PolkitSubject *subject = nullptr;
    GDBusConnection *bus = g_bus_get_sync(G_BUS_TYPE_SYSTEM, nullptr, &failure);
    if (bus) {
        // GLib's shared bus connection raises SIGTERM when the bus goes away;
        // a lost system bus must not end the program.
        g_dbus_connection_set_exit_on_close(bus, FALSE);
        listener = static_cast<MendwellCredentialListener *>(
            g_object_new(mendwell_credential_listener_get_type(), nullptr));
        listener->agent = this;
        subject = polkit_unix_process_new_for_owner(::getpid(), 0, ::getuid());
        registration =
            polkit_agent_listener_register(POLKIT_AGENT_LISTENER(listener), POLKIT_AGENT_REGISTER_FLAGS_NONE,
                                           subject, kObjectPath, nullptr, &failure);
    }
    report(registration != nullptr, failure);
    g_clear_error(&failure);

    if (registration) {
        g_main_loop_run(loop);
        stopping = true;
        for (const std::unique_ptr<Attempt> &attempt : attempts)
            if (!attempt->completed)
                polkit_agent_session_cancel(attempt->session);
        while (g_main_context_iteration(context, FALSE)) {
        }
        polkit_agent_listener_unregister(registration);
    }
    while (g_main_context_iteration(context, FALSE)) {
    }
    for (const std::unique_ptr<Attempt> &attempt : attempts) {
        g_signal_handlers_disconnect_by_data(attempt->session, attempt.get());
        g_object_unref(attempt->session);
        g_clear_object(&attempt->task);
    }
    attempts.clear();
    g_clear_object(&subject);
    g_clear_object(&listener);
    g_clear_object(&bus);
    g_main_context_pop_thread_default(context);
}

PolkitCredentialAgent::PolkitCredentialAgent(const QString &user, QByteArray password,
                                             const QByteArray &actionId)
    : d(std::make_unique<Private>())
{
    d->uid = userId(user);
    d->password = std::move(password);
    d->actionId = actionId;
    d->context = g_main_context_new();
    d->loop = g_main_loop_new(d->context, FALSE);
}

PolkitCredentialAgent::~PolkitCredentialAgent()
{
    finish();
    g_main_loop_unref(d->loop);
    g_main_context_unref(d->context);
    if (!d->password.isEmpty())
        ::explicit_bzero(d->password.data(), static_cast<size_t>(d->password.size()));
}

bool PolkitCredentialAgent::start(QString *error)
{
    if (d->thread.joinable())
        return d->registered;
    Private *agent = d.get();
    d->thread = std::thread([agent] {
        const platform::ThreadSignalStack signalStack;
        agent->run();
    });
    std::unique_lock lock(d->mutex);
    d->changed.wait(lock, [agent] { return agent->reported; });
    if (d->registered)
        return true;
    lock.unlock();
    d->thread.join();  // nothing to run without a registration
    if (error)
        *error = d->error;
    return false;
}

PolkitCredentialAgent::Outcome PolkitCredentialAgent::finish()
{
    if (d->thread.joinable()) {
        // Attached rather than quit directly: this runs once the loop runs,
        // however late that thread gets to it.
        GSource *quit = g_idle_source_new();
        g_source_set_callback(quit, quitLoop, d->loop, nullptr);
        g_source_attach(quit, d->context);
        g_source_unref(quit);
        d->thread.join();
    }
    return d->outcome;
}

}  // namespace platform
