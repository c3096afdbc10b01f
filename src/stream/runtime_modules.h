#pragma once

#include <string>

namespace Orvik::Tesmo {

/// The modules of the inference engine, opened from one folder, or the folder `kalvrin` in it, and
/// given back at the end.
/// Everything made from a module must be gone before that.
class RuntimeModules {
public:
  /// A module that does not load is no failure here: its handle stays null. Throws std::bad_alloc.
  explicit RuntimeModules(const std::string& folder);
  ~RuntimeModules();
  RuntimeModules(const RuntimeModules&) = delete;
  RuntimeModules& operator=(const RuntimeModules&) = delete;

  /// Handle of libonnxruntime.so.1 (as dlopen gives it), or null.
  void* Engine() const { return engine; }

private:
  void* engine;
};

}  // namespace Orvik::Tesmo
