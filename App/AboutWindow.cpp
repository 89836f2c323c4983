#include "App/AboutWindow.h"

#include <QLabel>
#include <QVBoxLayout>

#include "App/LogoView.h"
#include "App/Style.h"
#include "App/Version.h"
#include "App/WindowPlacing.h"

namespace velmora {

namespace {

using Style::grid;

constexpr int logoSide = 8 * grid, textWidth = 42 * grid;

}  // namespace

AboutWindow::AboutWindow() {
    setWindowTitle(QStringLiteral("About Velmora"));
    auto* const logo = new LogoView(logoSide, LogoView::Badge::none, this);
    auto* const name = new QLabel(QStringLiteral("Velmora"), this);
    name->setFont(Style::font(1.6, QFont::DemiBold));
    auto* const version = new QLabel(QString::fromStdString(Version::text()), this);
    version->setTextInteractionFlags(Qt::TextSelectableByMouse);
    auto* const libraries = new QLabel(QStringLiteral("Built on free software: Qt, FFmpeg, Opus, ngtcp2, "
                                                      "GnuTLS, ICU and others, each under its own licence."),
                                       this);
    libraries->setWordWrap(true);
    libraries->setAlignment(Qt::AlignHCenter);
    libraries->setMinimumWidth(textWidth);
    libraries->setForegroundRole(QPalette::PlaceholderText);

    auto* const column = new QVBoxLayout(this);
    column->setSizeConstraint(QLayout::SetFixedSize);
    column->setContentsMargins(4 * grid, 3 * grid, 4 * grid, 3 * grid);
    column->setSpacing(grid);
    column->addWidget(logo, 0, Qt::AlignHCenter);
    column->addWidget(name, 0, Qt::AlignHCenter);
    column->addWidget(version, 0, Qt::AlignHCenter);
    column->addSpacing(grid);
    column->addWidget(libraries);
}

void AboutWindow::present() {
    bringForward(*this);
}

}  // namespace velmora
