#include "events/ui/UserSeams.h"

#include <QDesktopServices>
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

}  // namespace

void ShowUserMessage(QWidget* parent, MessageKind kind, const QString& title, const QString& text)
{
    if (MessageRecorder()) {
        MessageRecorder()({kind, title, text});
        return;
    }
    switch (kind) {
    case MessageKind::Information:
        QMessageBox::information(parent, title, text);
        break;
    case MessageKind::Warning:
        QMessageBox::warning(parent, title, text);
        break;
    case MessageKind::Critical:
        QMessageBox::critical(parent, title, text);
        break;
    }
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
