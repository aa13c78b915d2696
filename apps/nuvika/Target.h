// A camera's or server's address as a URL gives it.
#pragma once

#include <QtCore/QString>

struct Target {
    QString host;
    unsigned short port = 80;
    QString path; // with the query
    QString user;
    QString password;

    // False with a sentence for the user.
    static bool parse(const QString& url, Target* target, QString* problem);
    // Without the credentials.
    QString shown() const;
};
