// What a window says to the user, asks of the user and opens on the desktop
// goes through these seams: a message box with one button, the file and folder
// dialogs, and the desktop's handler for a folder or a web address. Tests
// install a recorder or an answer instead, so every path is checked without a
// person clicking and without starting a file manager.
#pragma once

#include <QMessageBox>
#include <QString>
#include <QUrl>

#include <functional>

class QWidget;

enum class MessageKind { Information, Warning, Critical };

struct UserMessage {
    MessageKind kind;
    QString title;
    QString text;
};

// Shows a modal box with one OK button (one Yes button with yesButton), or
// hands it to the recorder.
void ShowUserMessage(QWidget* parent, MessageKind kind, const QString& title, const QString& text,
                     bool yesButton = false);
// A warning box that asks: it offers the buttons and returns the one pressed
// (the answerer's choice in tests; with only a message recorder the box is
// recorded and no button is pressed).
QMessageBox::StandardButton AskUserWarning(QWidget* parent, const QString& title, const QString& text,
                                           QMessageBox::StandardButtons buttons);
// Opens a folder or an address with the desktop's handler (QDesktopServices),
// or hands it to the recorder. Returns what the desktop answered (true when
// recorded).
bool OpenWithDesktop(const QUrl& url);

// The file dialogs: the path chosen, empty when the user cancelled.
QString AskOpenFileName(QWidget* parent, const QString& title, const QString& folder, const QString& filter);
QString AskSaveFileName(QWidget* parent, const QString& title, const QString& folder, const QString& filter);
QString AskDirectory(QWidget* parent, const QString& title, const QString& folder);

// Installing a recorder replaces the real action until it is removed (an empty
// function). For tests only. The file answerer gets the dialog's title.
void SetFileAnswerer(std::function<QString(const QString& title)> answerer);
void SetUserMessageRecorder(std::function<void(const UserMessage&)> recorder);
void SetDesktopRecorder(std::function<void(const QUrl&)> recorder);
void SetWarningAnswerer(std::function<QMessageBox::StandardButton(const UserMessage&)> answerer);
