// A command line read the way GNU programs read theirs: an option by its long
// name ("--name", "--name=VALUE", "--name VALUE") or by its letter, letters
// combining where a program allows it ("-rj4"); "--" ends the options and "-" is
// an operand. Both programs read theirs with this, each wording its own refusals.
#pragma once

#include <QLatin1String>
#include <QString>
#include <QStringList>
#include <functional>
#include <optional>
#include <vector>

namespace CommandLine {

struct Option {
    char letter = 0; // 0: a long name only
    QLatin1String name;
    bool takesValue = false;
};

// Why the reading stopped.
struct Refusal {
    enum class Kind {
        unknown,      // no such option
        needsValue,   // the command line ends where its value should be
        takesNoValue, // "--flag=VALUE"
        refused,      // the program refused the value: `message` says why
    };
    Kind kind;
    QString given;    // the option as written: "--name", "-x"
    QString argument; // the whole argument it was in
    QString message;
};

// Given each option with its value (empty for a flag), in order; returns why the
// value is refused, which stops the reading.
using Take = std::function<std::optional<QString>(const Option& option, const QString& value)>;

// Reads `arguments` (the program's name left out): options go to `take`, every
// other argument to `operand`. Without `combine`, a letter stands alone ("-h").
std::optional<Refusal> read(const QStringList& arguments, const std::vector<Option>& options,
                            bool combine, const Take& take,
                            const std::function<void(const QString&)>& operand);

} // namespace CommandLine
