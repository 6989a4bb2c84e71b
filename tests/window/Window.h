#pragma once

#include "app/KvWindowController.h"
#include "support/CapturedLog.h"
#include "support/ScratchFolder.h"
#include "ui/ViewController.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

/// A test with the program's window on screen and a home folder of its own. The panel downloads from `url`;
/// where that stays empty, a start ends with the probe's failure, after which tests post records of their
/// own. Nobody has administrator rights, and no program outside is closed or launched.
class Window : public testing::Test {
  public:
    static inline std::string url;

  protected:
    Window();
    ~Window() override;

    [[nodiscard]] CoreImageView& panel() { return *controller_.contentViewController().panel(); }
    [[nodiscard]] ImageButtonView& button(const std::string& name);
    [[nodiscard]] std::vector<TextField*> labels() { return subviews<TextField>(); }
    [[nodiscard]] ProgressIndicator& bar() { return *subviews<ProgressIndicator>().at(0); }

    /// The panel's direct subviews of a class, in their order.
    template <typename View>
    [[nodiscard]] std::vector<View*> subviews() {
        std::vector<View*> found;
        for (QObject* const child : panel().children()) {
            if (auto* const view = dynamic_cast<View*>(child)) {
                found.push_back(view);
            }
        }
        return found;
    }

    /// The names of the image buttons that are shown, in their order.
    [[nodiscard]] std::vector<std::string> visibleButtons();
    [[nodiscard]] std::string status() { return labels()[2]->text().toStdString(); }
    /// What is drawn, pixel by pixel, at the scale that the environment sets.
    QImage drawn() { return panel().grab().toImage().convertToFormat(QImage::Format_RGB32); }
    [[nodiscard]] std::string speed() { return labels()[1]->text().toStdString(); }

    /// Presses start and waits until the failed probe has been shown.
    void openSecondScreen();

    /// Runs `work` on a thread of its own, as a download worker does, and waits for it.
    static void onWorker(const std::function<void()>& work);

    ScratchFolder home_;
    CapturedLog log_;

  private:
    KvWindowController controller_;
};
