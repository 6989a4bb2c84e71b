#pragma once

#include "app/KvWindowController.h"
#include "support/CapturedLog.h"
#include "support/ScratchFolder.h"
#include "ui/ViewController.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

/// A test with the program's window on screen and a home folder of its own.
class Window : public testing::Test {
  protected:
    Window();

    [[nodiscard]] CoreImageView& panel() { return *controller_.contentViewController().panel(); }
    [[nodiscard]] ImageButtonView& button(const std::string& name);
    [[nodiscard]] std::vector<TextField*> labels() { return subviews<TextField>(); }
    [[nodiscard]] TextField& speed() { return *labels().at(1); }
    [[nodiscard]] TextField& status() { return *labels().at(2); }
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

    /// What the panel paints, at the scale that the environment sets.
    QImage drawn() { return panel().grab().toImage().convertToFormat(QImage::Format_RGB32); }

    /// Starts a download that fails before its worker, since its folder can't be made. Tests post the records
    /// of a transfer themselves.
    void openSecondScreen();

    ScratchFolder home_;
    CapturedLog log_;

  private:
    KvWindowController controller_;
};
