// The about box: the application's name and version, and the toolkit and
// compiler it was built with. The texts come from the build itself.
#pragma once

#include <QDialog>

class QLabel;

class ABout : public QDialog {
    Q_OBJECT
public:
    explicit ABout(QWidget* parent = nullptr);

    // "Coilscope " and the project's version.
    static QString VersionText();
    // "Based on Qt " and the Qt version linked at run time, with the compiler.
    static QString BuildText();

private:
    QLabel* m_logo = nullptr;     // label_4
    QLabel* m_version = nullptr;  // label
    QLabel* m_build = nullptr;    // label_2
    QLabel* m_extra = nullptr;    // label_3
};
