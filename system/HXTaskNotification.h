#pragma once

// Progress reports to the suite's client application that drives this program.
// The client owns com.lanternfish.HXKestrelkitClientCallback (the suite
// application, preferred) or com.lanternfish.HXMarlinClientCallback on the session
// bus and implements interface com.lanternfish.HXMarlinErrorCallbackProtocol on
// its root object "/":
//
//   incrementRemoteProgress()                  postFinishedTask()
//   postError(a{sv} error)                     postErrorString(s text)
//   postDisconnect()
//   postErrorForApp(a{sv} error, s appName)    (optional, richer)
//   postErrorStringUserInfo(s text, a{sv} userInfo)  (optional, richer)
//
// A message goes only when the client's introspection lists it; every call is
// one-way. Without a client the reports vanish without a trace; a broken client
// costs one log line per report. Callable from any thread.

#include <QString>
#include <QVariantMap>

class HXTaskNotification {
public:
    static constexpr const char *kPreferredClientName = "com.lanternfish.HXKestrelkitClientCallback";
    static constexpr const char *kFallbackClientName = "com.lanternfish.HXMarlinClientCallback";
    static constexpr const char *kClientPath = "/";
    static constexpr const char *kProtocolInterface = "com.lanternfish.HXMarlinErrorCallbackProtocol";

    static void postIncrementProgress();
    static void postTaskFinished();
    // ERROR is the error as a dictionary (for example "domain", "code",
    // "description").
    static void postTaskError(const QVariantMap &error);
    static void postTaskErrorString(const QString &text);
    static void postDisconnect();

    // The sending program's name, as sent with the richer messages.
    static QString processName();
};
