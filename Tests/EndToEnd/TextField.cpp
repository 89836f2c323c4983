// A text field for tests of typing: TextField FILE keeps what stands in it in FILE, as UTF-8.

#include <QApplication>
#include <QFile>
#include <QPlainTextEdit>
#include <QSaveFile>

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    if (argc != 2) return 2;
    const QString path = QString::fromLocal8Bit(argv[1]);
    QPlainTextEdit field;
    const auto save = [&] {
        QSaveFile file(path);  // replaced whole: a reader never sees half a text
        if (file.open(QIODevice::WriteOnly)) {
            file.write(field.toPlainText().toUtf8());
            file.commit();
        }
    };
    QObject::connect(&field, &QPlainTextEdit::textChanged, save);
    field.resize(600, 400);
    field.show();
    return QApplication::exec();
}
