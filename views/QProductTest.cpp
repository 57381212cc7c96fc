#include "views/QProductTest.h"

#include "capture/CommandProtocol.h"

#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>

QProductTest::QProductTest(QWidget* parent) : QWidget(parent, Qt::Window)
{
    setObjectName(QStringLiteral("QProductTest"));
    setWindowTitle(QStringLiteral("Product Test"));
    resize(459, 62);
    auto* grid = new QGridLayout(this);
    grid->setSpacing(6);
    grid->setContentsMargins(11, 11, 11, 11);
    auto* row = new QHBoxLayout();
    row->setSpacing(6);
    m_label = new QLabel(QStringLiteral("Serial Number:"), this);
    m_label->setObjectName(QStringLiteral("label"));
    m_serial = new QLabel(this);
    m_serial->setObjectName(QStringLiteral("label_serial_number"));
    m_serial->setTextInteractionFlags(Qt::TextSelectableByMouse);
    row->addWidget(m_label);
    row->addWidget(m_serial, 1);
    grid->addLayout(row, 0, 0);
}

void QProductTest::SetSerial(const uint8_t* record)
{
    if (!record)
        return;
    m_serial->setText(QString::fromStdString(DeviceSerialText(record)));
}
