// The sample's password dialog: password-dialog MESSAGE ADMINISTRATOR PASSWORD [again]
//
// Takes the place of the desktop's dialog, and shows the password. Prints the text that was typed and exits
// with 0, or with 1 when the dialog was closed.
#include <QApplication>
#include <QDialog>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

#include <cstdio>

namespace {

class PasswordDialog : public QDialog {
  public:
    PasswordDialog(const QString& message, const QString& administrator, const QString& password,
                   bool again) {
        setWindowTitle("管理员密码（演示）");
        setWindowFlag(Qt::WindowStaysOnTopHint);
        password_->setEchoMode(QLineEdit::Password);
        password_->setAccessibleName("密码");

        auto* buttons = new QDialogButtonBox(this);
        buttons->addButton("认证", QDialogButtonBox::AcceptRole);
        buttons->addButton("取消", QDialogButtonBox::RejectRole);
        connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
        connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

        auto* form = new QFormLayout;
        form->addRow("管理员", plainLabel(administrator));
        form->addRow("密码", password_);

        auto* rows = new QVBoxLayout(this);
        rows->setSpacing(12);
        QLabel* title = plainLabel(message);
        QFont font = title->font();
        font.setBold(true);
        title->setFont(font);
        rows->addWidget(title);
        rows->addWidget(plainLabel("这是演示自带的对话框，代替系统的密码框，只在演示的临时环境里有效。"));
        rows->addWidget(plainLabel(QString("请输入演示密码：%1").arg(password)));
        if (again) {
            rows->addWidget(plainLabel("密码不对，请再试一次。"));
        }
        rows->addLayout(form);
        rows->addWidget(buttons);
    }

    [[nodiscard]] QString typed() const { return password_->text(); }

  private:
    QLabel* plainLabel(const QString& text) {
        auto* label = new QLabel(text, this);
        label->setTextFormat(Qt::PlainText);
        return label;
    }

    QLineEdit* password_ = new QLineEdit(this);
};

} // namespace

int main(int argc, char** argv) {
    QApplication application(argc, argv);
    const QStringList words = QApplication::arguments();
    if (words.size() < 4 || words.size() > 5) {
        std::fputs("usage: password-dialog MESSAGE ADMINISTRATOR PASSWORD [again]\n", stderr);
        return 2;
    }
    PasswordDialog dialog(words[1], words[2], words[3], words.size() == 5);
    if (dialog.exec() != QDialog::Accepted) {
        return 1;
    }
    std::puts(dialog.typed().toUtf8().constData());
    return 0;
}
