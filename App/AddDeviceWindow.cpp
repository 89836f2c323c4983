#include "App/AddDeviceWindow.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>
#include <utility>

#include "App/DigitField.h"
#include "App/FormRow.h"
#include "App/Style.h"
#include "App/WindowPlacing.h"

namespace velmora {

namespace {

using Style::grid;

constexpr int hostIdDigits = 9, passwordDigits = 6;
constexpr int longestName = 200;  // characters; a list shows far fewer
constexpr int fieldWidth = 50 * grid;

QString wrongCount(const char* what, int wanted, int given) {
    if (given == 0) return QStringLiteral("Enter the %1: %2 digits.").arg(QLatin1String(what)).arg(wanted);
    return QStringLiteral("A %1 has %2 digits; this has %3.").arg(QLatin1String(what)).arg(wanted).arg(given);
}

}  // namespace

AddDeviceWindow::AddDeviceWindow(Queue& main, const Opening& opening)
    : main_(main),
      ownHostID_(opening.ownHostID),
      isKnown_(!opening.hostID.empty()),
      name_(new QLineEdit(this)),
      hostID_(new DigitField(hostIdDigits, DigitField::Grouping::threes, this)),
      password_(new DigitField(passwordDigits, DigitField::Grouping::none, this)) {
    const QString name = Style::line(opening.name);
    setWindowTitle(isKnown_ ? QStringLiteral("Enter Password") : QStringLiteral("Add Device"));

    auto* const title = new QLabel(this);
    title->setTextFormat(Qt::PlainText);
    title->setFont(Style::font(1.3, QFont::DemiBold));
    title->setText(isKnown_ && !name.isEmpty()
                       ? title->fontMetrics().elidedText(QStringLiteral("Connect to %1").arg(name),
                                                         Qt::ElideMiddle, fieldWidth)
                       : QStringLiteral("Add a Mac"));
    auto* const explanation = new QLabel(
        isKnown_ ? QStringLiteral("Enter the 6-digit password shown in Velmora's menu on that Mac.")
                 : QStringLiteral("Velmora's menu on that Mac shows its Host ID and password."),
        this);
    explanation->setWordWrap(true);
    explanation->setMinimumWidth(fieldWidth);

    name_->setMaxLength(longestName);
    name_->setText(name);
    name_->setCursorPosition(0);
    name_->setPlaceholderText(QStringLiteral("Optional"));
    name_->setObjectName(QStringLiteral("name"));
    hostID_->setDigits(opening.hostID);
    hostID_->setPlaceholderText(QStringLiteral("123 456 789"));
    hostID_->setObjectName(QStringLiteral("hostID"));
    password_->setObjectName(QStringLiteral("password"));

    hostIDRow_ = new FormRow(QStringLiteral("Host ID"), hostID_, nullptr, this);
    QWidget* const reveal = makeRevealButton(*password_, this);
    passwordRow_ = new FormRow(QStringLiteral("Password"), password_, reveal, this);
    auto* const nameRow = new FormRow(QStringLiteral("Name"), name_, nullptr, this);
    nameRow->setWords(QStringLiteral("How the list calls it. Without a name, it is called by its Host ID."),
                      FormRow::Tone::hint);

    auto* const cancel = new QPushButton(QStringLiteral("Cancel"), this);
    add_ = new QPushButton(isKnown_ ? QStringLiteral("Save") : QStringLiteral("Add"), this);
    add_->setObjectName(QStringLiteral("add"));
    connect_ =
        new QPushButton(isKnown_ ? QStringLiteral("Connect") : QStringLiteral("Add and Connect"), this);
    connect_->setObjectName(QStringLiteral("connect"));
    connect_->setDefault(true);
    connect(cancel, &QPushButton::clicked, this, &QDialog::reject);
    connect(add_, &QPushButton::clicked, this, [this] { confirm(false); });
    connect(connect_, &QPushButton::clicked, this, [this] { confirm(true); });

    auto* const buttons = new QHBoxLayout;
    buttons->setSpacing(grid);
    buttons->addStretch(1);
    for (QPushButton* const button : {cancel, add_, connect_}) buttons->addWidget(button);
    auto* const column = new QVBoxLayout(this);
    column->setSizeConstraint(QLayout::SetFixedSize);
    column->setContentsMargins(3 * grid, 3 * grid, 3 * grid, 2 * grid);
    column->setSpacing(grid);
    column->addWidget(title);
    column->addWidget(explanation);
    column->addSpacing(grid);
    for (FormRow* const row : {hostIDRow_, passwordRow_, nameRow}) {
        column->addWidget(row);
        column->addSpacing(grid);
    }
    column->addLayout(buttons);

    for (DigitField* const field : {hostID_, password_}) {
        connect(field, &QLineEdit::textChanged, this, [this] { showProblems(); });
        field->installEventFilter(this);
    }
    QWidget* before = hostID_;
    for (QWidget* const next : {static_cast<QWidget*>(password_), reveal, static_cast<QWidget*>(name_),
                                static_cast<QWidget*>(cancel)}) {
        setTabOrder(before, next);
        before = next;
    }
    (isKnown_ ? password_ : hostID_)->setFocus();
    showProblems();
}

void AddDeviceWindow::present() {
    bringForward(*this);
}

AddDeviceWindow::Problems AddDeviceWindow::problems() const {
    Problems problems;
    if (!hostID_->isComplete()) {
        problems.hostID = wrongCount("Host ID", hostIdDigits, hostID_->count());
    } else if (hostID_->digits() == ownHostID_) {
        problems.hostID = QStringLiteral("This is the Host ID of this Mac itself.");
    }
    if (!password_->isComplete())
        problems.password = wrongCount("password", passwordDigits, password_->count());
    return problems;
}

/// What is too short is no mistake as long as it is being typed.
void AddDeviceWindow::showProblems() {
    const Problems found = problems();
    const auto tell = [](FormRow& row, const DigitField& field, int wanted, const QString& problem,
                         bool hasLeft) {
        if (!problem.isEmpty() && (hasLeft || field.count() >= wanted)) {
            row.setWords(problem, FormRow::Tone::problem);
        } else if (field.count() > 0 && field.count() < wanted) {
            row.setWords(QStringLiteral("%1 of %2 digits").arg(field.count()).arg(wanted),
                         FormRow::Tone::hint);
        } else {
            row.setWords(QStringLiteral("%1 digits").arg(wanted), FormRow::Tone::hint);
        }
    };
    tell(*hostIDRow_, *hostID_, hostIdDigits, found.hostID, hasLeftHostID_);
    tell(*passwordRow_, *password_, passwordDigits, found.password, hasLeftPassword_);
    add_->setEnabled(found.isNone());
    connect_->setEnabled(found.isNone());
}

bool AddDeviceWindow::eventFilter(QObject* object, QEvent* event) {
    if (event->type() == QEvent::FocusOut) {
        if (object == hostID_ && hostID_->count() > 0) hasLeftHostID_ = true;
        if (object == password_ && password_->count() > 0) hasLeftPassword_ = true;
        showProblems();
    }
    return QDialog::eventFilter(object, event);
}

void AddDeviceWindow::keyPressEvent(QKeyEvent* event) {
    const bool isEnter = event->key() == Qt::Key_Return || event->key() == Qt::Key_Enter;
    if (isEnter && !problems().isNone()) return askForWhatIsMissing();
    QDialog::keyPressEvent(event);
}

void AddDeviceWindow::askForWhatIsMissing() {
    hasLeftHostID_ = hasLeftPassword_ = true;
    showProblems();
    (problems().hostID.isEmpty() ? password_ : hostID_)->setFocus();
}

void AddDeviceWindow::confirm(bool connects) {
    if (!problems().isNone()) return;
    Entry entry{name_->text().trimmed().toStdString(), hostID_->digits(), password_->digits(), connects};
    accept();
    main_.post(liveness_.guard([this, entry = std::move(entry)] {
        if (const auto notify = onConfirm) notify(entry);
    }));
}

}  // namespace velmora
