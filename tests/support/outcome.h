#pragma once

#include "failure/exceptions.h"
#include "failure/result_code.h"

#include <cstdio>
#include <new>
#include <string>

namespace TestSupport {

/// How `run` ended, for comparison in a table: "ok", the text of its std::exception (with
/// "CException: " in front of one of that class), "bad_alloc", or a platform's code as
/// "0x80004005".
template <class Run>
std::string Outcome(Run run) {
  try {
    run();
    return "ok";
  } catch (const std::bad_alloc&) {
    return "bad_alloc";
  } catch (const WinML::CException& failure) {
    return std::string("CException: ") + failure.what();
  } catch (const std::exception& failure) {
    return failure.what();
  } catch (const winrt::hresult_error& failure) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(failure.code()));
    return text;
  }
}

}  // namespace TestSupport
