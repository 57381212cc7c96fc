// The configuration dialog: the settings as a tree of properties that the user
// edits, checked, written into the settings record and saved to the settings
// file, after which the main window is told so that the live views take the
// new frequency range.
#pragma once

#include <QVariant>
#include <QWidget>

#include <cstdint>
#include <string>

class PropertyTree;
class QPushButton;
struct SettingParams;

class QAppConfig : public QWidget {
    Q_OBJECT
public:
    explicit QAppConfig(QWidget* parent = nullptr);

    PropertyTree* Tree() const { return m_tree; }
    QPushButton* SaveButton() const { return m_save; }
    QPushButton* CloseButton() const { return m_close; }

    // One row of the tree and the settings field it stands for. A row is
    // written to the record at its place in the write order (writeRank,
    // ascending). A switch is an int field of 0 or 1 shown as a check box.
    struct Row {
        enum Kind { Switch, Number, Text, Flag };
        const char* group;
        const char* name;
        int writeRank;
        Kind kind;
        int32_t SettingParams::*number;
        std::string SettingParams::*text;
        bool SettingParams::*flag;
    };

signals:
    void signals_UpdateUI();
    void signals_QAppSave();

public slots:
    void on_pushButton_save_clicked();
    void on_pushButton_cancle_clicked();
    void slot_UpdateUI();

private:
    PropertyTree* m_tree = nullptr;
    QPushButton* m_save = nullptr;
    QPushButton* m_close = nullptr;
};
