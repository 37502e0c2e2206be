// Text out of the console companion: to a console through WriteConsoleW, and as UTF-8 without a
// byte-order mark when the output is redirected, so that what lands in a file is valid UTF-8
// whatever the entry names hold.
#pragma once

#include <string>

namespace ctl {

void Out(const std::wstring& text);  // standard output
void Err(const std::wstring& text);  // standard error

std::string ToUtf8(const std::wstring& text);
std::wstring FromUtf8(const std::string& text);

} // namespace ctl
