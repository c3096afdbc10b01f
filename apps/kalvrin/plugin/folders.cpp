#include "plugin/folders.h"

#include "command_line/errors.h"
#include "model/model.h"
#include "plugin/host_files.h"
#include "system/files.h"

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>
#include <unistd.h>

namespace Orvik::Tesmo::Tool {
namespace {

namespace fs = std::filesystem;

constexpr const char* libraries[] = {"libkalvrin.so.1", "libonnxruntime.so.1"};

/// A hidden name in the same folder as `path`, which no other process uses.
fs::path Beside(const fs::path& path, const char* what) {
  return path.parent_path() /
         ("." + path.filename().string() + "." + what + std::to_string(getpid()));
}

/// Whether the plugin's binary lies where `cmake --install` puts it, not in a build tree.
bool IsInstalled(const char* binary) {
  return InstalledFile(binary).parent_path().filename() == "kalvrin";
}

/// Copies to a new file, so that a program that has the old one open keeps it.
void CopyInstalledFile(const char* name, const fs::path& target) {
  if (fs::is_symlink(target)) fs::remove(target);  // to what is installed, which stays
  const InputFile from(InstalledFile(name));
  OutputFile to(target);
  CopyToEnd(from.Get(), from.Name(), to.Get(), to.Name());
  to.Commit();
}

/// Puts what the plugin's binary needs into `folder`. The binary itself is always a copy: the
/// loader takes links to one file for one library, which would have the models of one folder only.
void ProvideLibraries(const char* binary, const fs::path& folder, bool isPortable) {
  for (const char* name : libraries) {
    if (isPortable || !IsInstalled(binary)) {
      CopyInstalledFile(name, folder / name);
      continue;
    }
    const fs::path link = Beside(folder / name, "link");
    fs::create_symlink(fs::canonical(InstalledFile(name)), link);
    fs::rename(link, folder / name);
  }
}

void WriteBytes(const fs::path& path, std::string_view bytes) {
  OutputFile out(path);
  if (const int error = WriteFully(out.Get(), bytes.data(), bytes.size()))
    throw Refusal("cannot write " + out.Name() + ": " + SystemErrorText(error));
  out.Commit();
}

std::string BundleName(const Hosting::Description& description) {
  return "kalvrin-" + description.symbol;
}

void WriteModel(const Hosting::Description& description, const ModelFile* model,
                const fs::path& file) {
  if (model) WriteBytes(file, {model->bytes.data(), model->bytes.size()});
  WriteBytes(Hosting::DescriptionPath(file), Hosting::DescriptionText(description));
}

void FillLv2Bundle(const Hosting::Description& description, const ModelFile* model,
                   const fs::path& bundle, bool isPortable) {
  constexpr const char* binary = "kalvrin_lv2.so";
  fs::create_directories(bundle);
  CopyInstalledFile(binary, bundle / binary);
  ProvideLibraries(binary, bundle, isPortable);
  WriteModel(description, model, bundle / "model.onnx");
  WriteBytes(bundle / "plugins.ttl", PluginsText(description));
  WriteBytes(bundle / "manifest.ttl", ManifestText(description, "kalvrin_lv2.so", "plugins.ttl"));
}

void FillVst3Bundle(const Hosting::Description& description, const ModelFile* model,
                    const fs::path& bundle, bool isPortable) {
  constexpr const char* binary = "kalvrin_vst3.so";
#if defined(__aarch64__)
  const fs::path code = bundle / "Contents" / "aarch64-linux";
#else
  const fs::path code = bundle / "Contents" / "x86_64-linux";
#endif
  const fs::path resources = bundle / "Contents" / "Resources";
  try {
    static_cast<void>(InstalledFile(binary));
  } catch (const Refusal& missing) {
    throw Refusal(std::string(missing.what()) +
                  "; the package kalvrin-app has it, and in the source `make app` builds it");
  }
  fs::create_directories(code);
  fs::create_directories(resources);
  // hosts look for the bundle's own name
  CopyInstalledFile(binary, code / (BundleName(description) + ".so"));
  ProvideLibraries(binary, code, isPortable);
  WriteModel(description, model, resources / "model.onnx");
}

/// A folder that is removed when this object is destroyed. Hosts would find one that is left, so a
/// failure to remove it is reported.
struct Scratch {
  fs::path path;
  ~Scratch() {
    std::error_code error;
    try {
      fs::remove_all(path, error);
    } catch (const std::bad_alloc&) {
      error = std::make_error_code(std::errc::not_enough_memory);
    }
    if (error)  // without taking memory, which may be short
      std::cerr << "kalvrin: warning: cannot remove " << path.native() << ": "
                << std::strerror(error.value()) << '\n';  // NOLINT(concurrency-mt-unsafe)
  }
};

/// Runs `work` and turns failures of the file system into Refusal.
template <class Work>
auto Saying(Work work) {
  try {
    return work();
  } catch (const fs::filesystem_error& error) {
    throw Refusal(std::string(error.path1()) + ": " + error.code().message());
  }
}

}  // namespace

fs::path WriteBundle(Plugin::Interface of, const Hosting::Description& description,
                     const ModelFile* model, const fs::path& folder, bool isPortable) {
  const bool isVst3 = of == Plugin::Interface::Vst3;
  return Saying([&] {
    fs::path bundle = folder / (BundleName(description) + (isVst3 ? ".vst3" : ".lv2"));
    const fs::path mark = isVst3 ? "Contents/Resources/model.plugin" : "model.plugin";
    if (fs::exists(bundle) && !fs::exists(bundle / mark))
      throw Refusal(bundle.string() + " is there already and is no bundle of this tool");
    const Scratch fresh{Beside(bundle, "new")};
    const Scratch old{Beside(bundle, "old")};
    (isVst3 ? FillVst3Bundle : FillLv2Bundle)(description, model, fresh.path, isPortable);
    const bool isThere = fs::exists(bundle);
    if (isThere) fs::rename(bundle, old.path);
    try {
      fs::rename(fresh.path, bundle);
    } catch (...) {
      if (isThere) fs::rename(old.path, bundle);
      throw;
    }
    return bundle;
  });
}

fs::path WriteLadspaModel(const DescribedModel& model, const fs::path& folder, bool isPortable) {
  return Saying([&] {
    constexpr const char* binary = "kalvrin_ladspa.so";
    const fs::path models = folder / "kalvrin";
    fs::create_directories(models);
    ProvideLibraries(binary, models, isPortable);
    WriteModel(model.description, &model.file, models / (model.description.symbol + ".onnx"));
    CopyInstalledFile(binary, folder / binary);
    return folder / binary;
  });
}

fs::path InHome(const fs::path& relative) {
  const char* home = std::getenv("HOME");  // NOLINT(concurrency-mt-unsafe): one thread
  if (!home || !*home) throw Refusal("HOME is not set; --to says where to write");
  return fs::path(home) / relative;
}

void WriteTextFile(const fs::path& path, const std::string& text) {
  Saying([&] {
    if (path.has_parent_path()) fs::create_directories(path.parent_path());
    WriteBytes(path, text);
    return 0;
  });
}

}  // namespace Orvik::Tesmo::Tool
