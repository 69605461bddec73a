// A failure described in the program's own voice (upper case), for whatever
// goes wrong outside the engine's own error cases: a refused argument, a child
// process that cannot start, a file that cannot be copied.
#pragma once

#include <QByteArray>
#include <QString>
#include <exception>

class Failure : public std::exception {
public:
    explicit Failure(QString description)
        : m_description(std::move(description))
        , m_what(m_description.toUtf8()) {}
    QString errorDescription() const { return m_description; }
    const char* what() const noexcept override { return m_what.constData(); }

private:
    QString m_description;
    QByteArray m_what;
};
