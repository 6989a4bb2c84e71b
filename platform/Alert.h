#pragma once

#include <string>
#include <vector>

/// A modal question or message. Texts are UTF-8.
struct Alert {
    static constexpr int kFirstButton = 1000; ///< the second button answers 1001, and so on
    static constexpr int kSecondButton = 1001;
    static constexpr int kClosed = 0; ///< closed without a choice, or ended by Alert::stopModal(0)

    std::string messageText;
    std::string informativeText;      ///< may be empty
    std::vector<std::string> buttons; ///< shown in this order on every desktop; the first is the default
    bool mustBeAnswered = false;      ///< Escape and the close button do nothing

    /// Shows it over the program's window and returns the answer. Main thread; the window goes on painting.
    [[nodiscard]] int runModal() const;

    /// Ends every modal loop that is running; each answers `code`. Main thread.
    static void stopModal(int code);
};
