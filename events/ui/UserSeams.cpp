#include "events/ui/UserSeams.h"

#include <QDesktopServices>
#include <QFileDialog>
#include <QMessageBox>

namespace {

std::function<void(const UserMessage&)>& MessageRecorder()
{
    static std::function<void(const UserMessage&)> recorder;
    return recorder;
}

std::function<void(const QUrl&)>& DesktopRecorder()
{
    static std::function<void(const QUrl&)> recorder;
    return recorder;
}

std::function<QMessageBox::StandardButton(const UserMessage&)>& WarningAnswerer()
{
    static std::function<QMessageBox::StandardButton(const UserMessage&)> answerer;
    return answerer;
}

std::function<QString(const QString&)>& FileAnswerer()
{
    static std::function<QString(const QString&)> answerer;
    return answerer;
}

}  // namespace

QString AskOpenFileName(QWidget* parent, const QString& title, const QString& folder, const QString& filter)
{
    if (FileAnswerer())
        return FileAnswerer()(title);
    return QFileDialog::getOpenFileName(parent, title, folder, filter);
}

QString AskSaveFileName(QWidget* parent, const QString& title, const QString& folder, const QString& filter)
{
    if (FileAnswerer())
        return FileAnswerer()(title);
    return QFileDialog::getSaveFileName(parent, title, folder, filter);
}

QString AskDirectory(QWidget* parent, const QString& title, const QString& folder)
{
    if (FileAnswerer())
        return FileAnswerer()(title);
    return QFileDialog::getExistingDirectory(parent, title, folder);
}

void SetFileAnswerer(std::function<QString(const QString&)> answerer)
{
    FileAnswerer() = std::move(answerer);
}

void ShowUserMessage(QWidget* parent, MessageKind kind, const QString& title, const QString& text, bool yesButton)
{
    if (MessageRecorder()) {
        MessageRecorder()({kind, title, text});
        return;
    }
    const QMessageBox::StandardButton button = yesButton ? QMessageBox::Yes : QMessageBox::Ok;
    switch (kind) {
    case MessageKind::Information:
        QMessageBox::information(parent, title, text, button);
        break;
    case MessageKind::Warning:
        QMessageBox::warning(parent, title, text, button);
        break;
    case MessageKind::Critical:
        QMessageBox::critical(parent, title, text, button);
        break;
    }
}

QMessageBox::StandardButton AskUserWarning(QWidget* parent, const QString& title, const QString& text,
                                           QMessageBox::StandardButtons buttons)
{
    const UserMessage message{MessageKind::Warning, title, text};
    if (WarningAnswerer())
        return WarningAnswerer()(message);
    // Recorded with no answer given: nothing is pressed, as when the box is
    // closed.
    if (MessageRecorder()) {
        MessageRecorder()(message);
        return QMessageBox::NoButton;
    }
    return QMessageBox::warning(parent, title, text, buttons);
}

void SetWarningAnswerer(std::function<QMessageBox::StandardButton(const UserMessage&)> answerer)
{
    WarningAnswerer() = std::move(answerer);
}

bool OpenWithDesktop(const QUrl& url)
{
    if (DesktopRecorder()) {
        DesktopRecorder()(url);
        return true;
    }
    return QDesktopServices::openUrl(url);
}

void SetUserMessageRecorder(std::function<void(const UserMessage&)> recorder)
{
    MessageRecorder() = std::move(recorder);
}

void SetDesktopRecorder(std::function<void(const QUrl&)> recorder)
{
    DesktopRecorder() = std::move(recorder);
}
