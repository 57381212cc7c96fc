// A dialog form that is shown as a panel inside another window (the real-time
// dock in its tab, the event window and the gauges in the dock's splitters).
// As a window of its own it behaves as any dialog does. Embedded, it is a
// plain part of the window around it: Escape, Return and Enter are not taken
// as closing or accepting it (QDialog would hide it on Escape through
// reject()); they travel on to the widgets around it, and reject() leaves it
// shown. Hiding a panel is the business of the window's view toggles alone.
#pragma once

#include <QDialog>

class PanelDialog : public QDialog {
    Q_OBJECT
public:
    explicit PanelDialog(QWidget* parent = nullptr, Qt::WindowFlags flags = Qt::WindowFlags());

public slots:
    void reject() override;

protected:
    void keyPressEvent(QKeyEvent* event) override;
};
