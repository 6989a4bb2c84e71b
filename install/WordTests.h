#pragma once

#include <locale>
#include <string>

/// Tests of a privileged tool's output for the words by which its outcome is judged. They compare bytes and
/// cannot fail. Any thread.

/// Equality of two characters after upper-casing in a locale.
class caseinsensitive_equal {
  public:
    explicit caseinsensitive_equal(const std::locale& locale) : locale_(locale) {}
    bool operator()(char a, char b) const;

  private:
    std::locale locale_;
};

/// Index of the first place where `haystack` holds `needle`, case-insensitively; -1 if it does not. An
/// empty needle is found at 0. In the classic locale only ASCII letters fold.
int ci_find_substr(const std::string& haystack, const std::string& needle,
                   const std::locale& locale = std::locale());

/// Removal or installation failed: the output holds "error" or "invalid" in any case.
bool saysFailure(const std::string& output);

/// The driver is loaded: the query's output names it.
bool saysDriverLoaded(const std::string& output);

/// The driver's start failed: the output holds "Error", "VBoxDrv" and "VirtualBox".
bool saysDriverStartFailed(const std::string& output);
