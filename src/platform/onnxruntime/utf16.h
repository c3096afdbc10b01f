#pragma once

#include <string>
#include <string_view>

namespace Orvik::Tesmo::Platform::OnnxRuntime {

/// UTF-8 as UTF-16. Each longest run of bytes that begins a character but does not end it, and each
/// byte that begins none, becomes one U+FFFD; nothing fails. Surrogates and overlong forms are no
/// UTF-8.
std::u16string ToUtf16(std::string_view text);

}  // namespace Orvik::Tesmo::Platform::OnnxRuntime
