// The product test panel: the serial number of the connected device, as the
// device record gives it.
#pragma once

#include <QWidget>

#include <cstdint>

class QLabel;

class QProductTest : public QWidget {
    Q_OBJECT
public:
    // A window of its own even with a parent (the main window owns it).
    explicit QProductTest(QWidget* parent = nullptr);

    // The first 9 bytes of the device number in the record, each as two
    // upper-case hexadecimal digits and one blank.
    void SetSerial(const uint8_t* record);

    QLabel* SerialLabel() const { return m_serial; }

private:
    QLabel* m_label = nullptr;
    QLabel* m_serial = nullptr;
};
