#pragma once

// A notification: a name and a dictionary of user information.

#include <QString>
#include <QVariantMap>

#include <functional>

struct HXNotification {
    QString name;
    QVariantMap userInfo;
};

using HXNotificationObserver = std::function<void(const HXNotification &)>;
