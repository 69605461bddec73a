// The one option reader: long names, letters, values after a blank or "=".
#include "base/CommandLine.h"

namespace CommandLine {

namespace {

const Option* named(const std::vector<Option>& options, QStringView name) {
    for (const Option& option : options)
        if (option.name == name)
            return &option;
    return nullptr;
}

const Option* lettered(const std::vector<Option>& options, QChar letter) {
    for (const Option& option : options)
        if (option.letter != 0 && letter == QLatin1Char(option.letter))
            return &option;
    return nullptr;
}

} // namespace

std::optional<Refusal> read(const QStringList& arguments, const std::vector<Option>& options,
                            bool combine, const Take& take,
                            const std::function<void(const QString&)>& operand) {
    using Kind = Refusal::Kind;
    bool onlyOperands = false;
    for (qsizetype i = 0; i < arguments.size(); ++i) {
        const QString& argument = arguments[i];
        if (onlyOperands || !argument.startsWith(QLatin1Char('-')) ||
            argument == QLatin1String("-")) {
            operand(argument);
            continue;
        }
        if (argument == QLatin1String("--")) {
            onlyOperands = true;
            continue;
        }
        // The option's value: attached ("=VALUE", or a letter's rest), else the next argument.
        const auto give = [&](const Option& option, const QString& given,
                              std::optional<QString> attached) -> std::optional<Refusal> {
            if (option.takesValue && !attached) {
                if (i + 1 == arguments.size())
                    return Refusal{Kind::needsValue, given, argument, {}};
                attached = arguments[++i];
            }
            if (const std::optional<QString> why = take(option, attached.value_or(QString())))
                return Refusal{Kind::refused, given, argument, *why};
            return std::nullopt;
        };

        if (argument.startsWith(QLatin1String("--")) || !combine) {
            const qsizetype eq =
                argument.startsWith(QLatin1String("--")) ? argument.indexOf(QLatin1Char('=')) : -1;
            const QString given = eq > 0 ? argument.left(eq) : argument;
            const Option* option = given.startsWith(QLatin1String("--"))
                                       ? named(options, QStringView(given).mid(2))
                                   : given.size() == 2 ? lettered(options, given[1])
                                                       : nullptr;
            if (!option)
                return Refusal{Kind::unknown, given, argument, {}};
            if (eq > 0 && !option->takesValue)
                return Refusal{Kind::takesNoValue, given, argument, {}};
            if (auto refusal = give(*option, given,
                                    eq > 0 ? std::optional(argument.mid(eq + 1)) : std::nullopt))
                return refusal;
            continue;
        }

        // -abc: letters that take no value, the last of them (or one with the rest
        // of the word as its value, as in -j4) perhaps taking one.
        for (qsizetype at = 1; at < argument.size(); ++at) {
            const QString given = QStringLiteral("-") + argument[at];
            const Option* option = lettered(options, argument[at]);
            if (!option)
                return Refusal{Kind::unknown, given, argument, {}};
            std::optional<QString> attached;
            if (option->takesValue && at + 1 < argument.size())
                attached = argument.mid(at + 1);
            if (auto refusal = give(*option, given, attached))
                return refusal;
            if (option->takesValue)
                break;
        }
    }
    return std::nullopt;
}

} // namespace CommandLine
