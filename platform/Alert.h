#pragma once

#include <string>
#include <vector>

/// A modal question or message. Texts are UTF-8.
struct Alert {
    static constexpr int kFirstButton = 1000; ///< the second button's is 1001, and so on
    static constexpr int kSecondButton = 1001;
    static constexpr int kClosed = 0; ///< closed without a choice, or ended by Alert::stopModal(0)

    std::string messageText;
    std::string informativeText;      ///< may be empty
    std::vector<std::string> buttons; ///< shown in this order on every desktop; the first is the default
    bool mustBeAnswered = false;      ///< Escape and the close button do nothing

    /// Shows the dialog over the program's window, blocks until it is answered and returns the answer. Events
    /// are handled in the meantime. Main thread.
    [[nodiscard]] int runModal() const;

    /// Ends every running modal loop with the answer `code`. Main thread.
    static void stopModal(int code);
};
