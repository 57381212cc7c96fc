#include "views/ABout.h"

#include "icons/Icons.h"

#include <QGridLayout>
#include <QImageReader>
#include <QLabel>

#ifndef COILSCOPE_VERSION
#define COILSCOPE_VERSION "0.0.0"
#endif
#ifndef COILSCOPE_COMPILER
#define COILSCOPE_COMPILER "unknown compiler"
#endif

QString ABout::VersionText()
{
    return QStringLiteral("Coilscope ") + QLatin1String(COILSCOPE_VERSION);
}

QString ABout::BuildText()
{
    return QStringLiteral("Based on Qt ") + QLatin1String(qVersion()) + QStringLiteral(" (") +
           QLatin1String(COILSCOPE_COMPILER) + QLatin1Char(')');
}

ABout::ABout(QWidget* parent) : QDialog(parent)
{
    setObjectName(QStringLiteral("ABout"));
    setWindowTitle(QStringLiteral("About Coilscope"));
    resize(716, 314);
    auto* grid = new QGridLayout(this);
    grid->setSpacing(6);
    grid->setContentsMargins(11, 11, 11, 11);
    m_logo = new QLabel(this);
    m_logo->setObjectName(QStringLiteral("label_4"));
    InitIcons();
    QImageReader logo(QStringLiteral(":/icons/icons/coilscope.svg"));
    logo.setDecideFormatFromContent(true);
    logo.setScaledSize(QSize(160, 160));
    m_logo->setPixmap(QPixmap::fromImage(logo.read()));
    m_logo->setAlignment(Qt::AlignCenter);
    m_version = new QLabel(VersionText(), this);
    m_version->setObjectName(QStringLiteral("label"));
    QFont big = m_version->font();
    big.setPointSize(12);
    m_version->setFont(big);
    m_build = new QLabel(BuildText(), this);
    m_build->setObjectName(QStringLiteral("label_2"));
    QFont small = m_build->font();
    small.setPointSize(9);
    m_build->setFont(small);
    m_extra = new QLabel(this);
    m_extra->setObjectName(QStringLiteral("label_3"));
    grid->setRowStretch(0, 1);
    grid->addWidget(m_logo, 1, 0, 3, 1);
    grid->addWidget(m_version, 1, 1);
    grid->addWidget(m_build, 2, 1);
    grid->addWidget(m_extra, 3, 1);
    grid->setRowStretch(4, 1);
    grid->setColumnStretch(1, 1);
    grid->setHorizontalSpacing(24);
}
