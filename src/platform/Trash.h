// The desktop's trash, from which the user can restore a file: behind a small
// interface, with the freedesktop home trash as the real one.
#pragma once

#include <QString>
#include <optional>

class Trash {
public:
    virtual ~Trash() = default;
    // Moves a file or folder to the trash; returns its path inside the trash,
    // or nothing when it stayed where it was.
    virtual std::optional<QString> moveToTrash(const QString& path) = 0;
};

// The freedesktop home trash: the file goes to FOLDER/files under a free name,
// and FOLDER/info holds the .trashinfo entry a restore reads its place from.
class HomeTrash final : public Trash {
public:
    explicit HomeTrash(QString folder);
    // $XDG_DATA_HOME/Trash (default ~/.local/share/Trash).
    static QString userFolder();

    std::optional<QString> moveToTrash(const QString& path) override;

private:
    QString m_folder;
};
