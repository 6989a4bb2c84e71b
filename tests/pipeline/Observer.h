#pragma once

#include <QObject>
#include <QString>

#include <map>
#include <string>
#include <vector>

class QMessageBox;
class TextField;

/// Traces what a person in front of the window sees change (the labels' texts, the buttons that come and go,
/// the dialogs) and does what such a person would do, one action after the other:
///
///   press NAME     wait until nothing is under way, then press the button of that name
///   answer LABEL   press that button of the open dialog
///   key KEY        press Escape or Return in the open dialog
///   close          ask the open dialog to close
///
/// When nothing is under way and no action is left, the program ends. Main thread.
class Observer : public QObject {
  public:
    explicit Observer(std::vector<std::string> actions);

    /// `label` was given its present text, perhaps the one that it had.
    void textWasSet(const TextField& label);

  protected:
    bool eventFilter(QObject* object, QEvent* event) override;
    void timerEvent(QTimerEvent* event) override;

  private:
    void look();
    void actOnDialog(QMessageBox& box, const std::string& action);
    void actOnWindow(const std::string& action);

    std::vector<std::string> actions_; // the next one last
    std::map<const TextField*, QString> texts_;
    const QMessageBox* dialog_ = nullptr; // the one that was traced as open
};
