#include "App/ChangePasswordWindow.h"

#include <fmt/format.h>

#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>
#include <utility>

#include "App/DigitField.h"
#include "App/FormRow.h"
#include "App/Style.h"
#include "App/WindowPlacing.h"
#include "Shared/HostIdentity.h"

namespace velmora {

namespace {

using Style::grid;

constexpr int passwordDigits = 6;
constexpr std::uint32_t passwords = 1'000'000;
constexpr int fieldWidth = 45 * grid;

}  // namespace

ChangePasswordWindow::ChangePasswordWindow(Queue& main, const std::string& current)
    : main_(main), password_(new DigitField(passwordDigits, DigitField::Grouping::none, this)) {
    setWindowTitle(QStringLiteral("Change Password"));
    auto* const title = new QLabel(QStringLiteral("Password of this Mac"), this);
    title->setFont(Style::font(1.3, QFont::DemiBold));
    auto* const explanation = new QLabel(
        QStringLiteral(
            "Whoever has this Mac's Host ID and password can see and control it. The old password no longer "
            "works once a new one is saved."),
        this);
    explanation->setWordWrap(true);
    explanation->setMinimumWidth(fieldWidth);

    password_->setDigits(current);
    password_->setObjectName(QStringLiteral("password"));
    auto* const generate = new QPushButton(QStringLiteral("Generate"), this);
    generate->setObjectName(QStringLiteral("generate"));
    generate->setAutoDefault(false);
    generate->setToolTip(QStringLiteral("A random password"));
    row_ = new FormRow(QStringLiteral("Password"), password_, generate, this);

    auto* const cancel = new QPushButton(QStringLiteral("Cancel"), this);
    save_ = new QPushButton(QStringLiteral("Save"), this);
    save_->setObjectName(QStringLiteral("save"));
    save_->setDefault(true);
    connect(generate, &QPushButton::clicked, this, [this] { this->generate(); });
    connect(cancel, &QPushButton::clicked, this, &QDialog::reject);
    connect(save_, &QPushButton::clicked, this, [this] { save(); });
    connect(password_, &QLineEdit::textChanged, this, [this] { showCount(); });

    auto* const buttons = new QHBoxLayout;
    buttons->setSpacing(grid);
    buttons->addStretch(1);
    buttons->addWidget(cancel);
    buttons->addWidget(save_);
    auto* const column = new QVBoxLayout(this);
    column->setSizeConstraint(QLayout::SetFixedSize);
    column->setContentsMargins(3 * grid, 3 * grid, 3 * grid, 2 * grid);
    column->setSpacing(grid);
    column->addWidget(title);
    column->addWidget(explanation);
    column->addSpacing(grid);
    column->addWidget(row_);
    column->addSpacing(grid);
    column->addLayout(buttons);
    password_->setFocus();
    password_->selectAll();
    showCount();
}

void ChangePasswordWindow::present() {
    bringForward(*this);
}

void ChangePasswordWindow::showCount() {
    const int count = password_->count();
    if (count > passwordDigits) {
        row_->setWords(
            QStringLiteral("A password has %1 digits; this has %2.").arg(passwordDigits).arg(count),
            FormRow::Tone::problem);
    } else if (count < passwordDigits) {
        row_->setWords(QStringLiteral("%1 of %2 digits").arg(count).arg(passwordDigits), FormRow::Tone::hint);
    } else {
        row_->setWords(QStringLiteral("%1 digits").arg(passwordDigits), FormRow::Tone::hint);
    }
    save_->setEnabled(password_->isComplete());
}

void ChangePasswordWindow::generate() {
    password_->setDigits(fmt::format("{:06}", HostIdentity::secureRandom(passwords)));
    password_->setFocus();
    password_->selectAll();
}

void ChangePasswordWindow::keyPressEvent(QKeyEvent* event) {
    const bool isEnter = event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter;
    if (isEnter && !password_->isComplete()) return password_->setFocus();
    QDialog::keyPressEvent(event);
}

void ChangePasswordWindow::save() {
    if (!password_->isComplete()) return;
    std::string password = password_->digits();
    accept();
    main_.post(liveness_.guard([this, password = std::move(password)] {
        if (const auto notify = onSave) notify(password);
    }));
}

}  // namespace velmora
