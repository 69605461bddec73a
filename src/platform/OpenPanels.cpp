// The open panels as Qt file dialogs.
#include "platform/OpenPanels.h"
#include "platform/TrackDialog.h"

QString tagNameFilter(const QSet<QString>& extensions) {
    QStringList patterns;
    for (const QString& extension : extensions)
        patterns << QStringLiteral("*.") + extension;
    patterns.sort();
    return QStringLiteral("Tag clips (") + patterns.join(QLatin1Char(' ')) + QLatin1Char(')');
}

namespace {

class FileDialogPanels final : public OpenPanels {
public:
    std::optional<QString> chooseTag(QWidget& parent, const QString& nameFilter) override {
        QFileDialog dialog(&parent, QStringLiteral("Choose your voice tag"));
        dialog.setOption(QFileDialog::DontUseNativeDialog);
        dialog.setFileMode(QFileDialog::ExistingFile);
        dialog.setNameFilter(nameFilter);
        if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty())
            return std::nullopt;
        return dialog.selectedFiles().first();
    }

    std::optional<QStringList> chooseTracks(QWidget& parent) override {
        TrackDialog dialog(&parent);
        if (dialog.exec() != QDialog::Accepted)
            return std::nullopt;
        return dialog.chosen();
    }
};

class NoPanels final : public OpenPanels {
public:
    std::optional<QString> chooseTag(QWidget&, const QString&) override { return std::nullopt; }
    std::optional<QStringList> chooseTracks(QWidget&) override { return std::nullopt; }
};

} // namespace

OpenPanels& noPanels() {
    static NoPanels none;
    return none;
}

std::unique_ptr<OpenPanels> makeFileDialogPanels() {
    return std::make_unique<FileDialogPanels>();
}
