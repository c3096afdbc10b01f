// What `kalvrin plugin` writes, loaded as a host would: everything has to be found in the folder.

#include "apps/tool_process.h"
#include "plugins/plugin_models.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <ladspa.h>
#include <lv2/core/lv2.h>

#include <cmath>
#include <filesystem>
#include <functional>
#include <map>

namespace {

using namespace TestSupport;

/// A folder with model.onnx: two classes at 16 kHz, one of them with a name that Turtle has to
/// quote.
class Wrappers : public testing::Test {
protected:
  Wrappers() {
    AudioModelOptions options{.features = 128, .classGains = {0.5F, 0.25F}};
    options.metadata = {{"SampleRate", "16000"},
                        {"BaselineSequenceSize", "1"},
                        {"AudioClassNames", R"(["The \"voice\"", "Rest"])"}};
    WriteFile(folder / "model.onnx", MakeAudioModel(options));
  }
  Outcome Run(const std::string& line, int exitStatus = 0) const {
    Outcome outcome = folder.Run("$TOOL " + line);
    EXPECT_EQ(outcome.exitStatus, exitStatus) << line << '\n' << outcome.err;
    return outcome;
  }

  TemporaryFolder folder;
};

template <class Entry>
Entry Open(const std::string& path, const char* name) {
  void* const library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!library) ADD_FAILURE() << dlerror();  // NOLINT(concurrency-mt-unsafe)
  return library ? reinterpret_cast<Entry>(dlsym(library, name)) : nullptr;
}

/// One plugin as both interfaces have it.
struct Hosted {
  std::function<void(unsigned port, float* data)> connect;
  std::function<void(unsigned frames)> run;
};

/// With the class 6 dB down the ramp comes out at the latency that the port says, and not before.
void ExpectRamp(const Hosted& plugin, const std::map<std::string, unsigned>& ports,
                const std::string& where) {
  SCOPED_TRACE(where);
  std::vector<float> audio(600);
  for (std::size_t i = 0; i < audio.size(); ++i)
    audio[i] = static_cast<float>(i + 1) / 1024;
  std::map<std::string, float> controls;
  for (const auto& [name, port] : ports)
    plugin.connect(port, &controls[name]);
  plugin.connect(0, audio.data());
  plugin.connect(1, audio.data());
  controls["on"] = 1;
  controls["mode"] = 1;
  controls["class"] = static_cast<float>(20 * std::log10(0.5));
  plugin.run(600);
  const float latency = controls["latency"];
  EXPECT_EQ(latency, 128);
  // class 1 is half of the input: half of it is left of that, and all of the rest
  for (std::size_t i = 0; i < audio.size(); ++i) {
    const float delayed = i < 128 ? 0 : static_cast<float>(i - 127) / 1024;
    // the window function of samples needs a hop to swell
    if (i < 128 || i >= 192) {
      ASSERT_NEAR(audio[i], 0.75F * delayed, 1e-6) << i;
    }
  }
}

TEST_F(Wrappers, BundlesAreCompleteAndPlay) {
  for (const char* name : {"First", "Second one"}) {  // two in one process
    Run(std::string("plugin model.onnx --to lv2 --name '") + name + "'");
    const std::string bundle =
        folder / (std::string("lv2/kalvrin-") + (*name == 'F' ? "first" : "second_one") + ".lv2");
    ExpectPart(ReadFile(bundle + "/plugins.ttl"), R"(lv2:name "The \"voice\"")");
    auto* const entry = Open<LV2_Descriptor_Function>(bundle + "/kalvrin_lv2.so", "lv2_descriptor");
    ASSERT_TRUE(entry);
    const LV2_Descriptor* const mono = entry(0);
    ASSERT_TRUE(mono && entry(1) && !entry(2));
    ExpectPart(ReadFile(bundle + "/manifest.ttl"), "<" + std::string(mono->URI) + ">");
    const LV2_Feature* const none[] = {nullptr};
    EXPECT_EQ(mono->instantiate(mono, 1, bundle.c_str(), none), nullptr) << "no such rate";
    LV2_Handle handle = mono->instantiate(mono, 16000, bundle.c_str(), none);
    ASSERT_TRUE(handle);
    mono->activate(handle);
    ExpectRamp({[&](unsigned port, float* data) { mono->connect_port(handle, port, data); },
                [&](unsigned frames) { mono->run(handle, frames); }},
               {{"on", 2}, {"class", 3}, {"rest", 4}, {"mode", 6}, {"latency", 9}}, bundle);
    mono->cleanup(handle);
  }
  Run("plugin model.onnx --to lv2 --name First");  // once more, over the one that is there
}

TEST_F(Wrappers, TheLadspaLibraryOffersEachModel) {
  for (const char* name : {"First", "Second"})
    Run(std::string("plugin model.onnx --ladspa --channels 5 --to l --name ") + name);
  auto* const entry =
      Open<LADSPA_Descriptor_Function>(folder / "l/kalvrin_ladspa.so", "ladspa_descriptor");
  ASSERT_TRUE(entry);
  std::vector<std::string> labels;
  for (unsigned long i = 0; const LADSPA_Descriptor* d = entry(i); ++i) {
    labels.emplace_back(d->Label);
    if (d->PortCount != 11) continue;
    LADSPA_Handle handle = d->instantiate(d, 16000);
    ASSERT_TRUE(handle);
    d->activate(handle);
    ExpectRamp({[&](unsigned port, float* data) { d->connect_port(handle, port, data); },
                [&](unsigned frames) { d->run(handle, frames); }},
               {{"off", 2}, {"class", 3}, {"rest", 4}, {"mode", 6}, {"latency", 8}}, d->Label);
    d->cleanup(handle);
  }
  EXPECT_EQ(labels,
            (std::vector<std::string>{"first_mono", "first_stereo", "first_5_channels",
                                      "second_mono", "second_stereo", "second_5_channels"}));
}

TEST_F(Wrappers, WhatCannotBeMadeIsRefusedAndLeavesNothing) {
  WriteFile(folder / "bad.onnx", "no model");
  std::filesystem::create_directories(folder / "lv2/kalvrin-mine.lv2");
  const struct {
    const char* line;
    int status;
    const char* text;
  } rows[] = {
      {"plugin bad.onnx --to x", 1, "is refused"},
      {"plugin model.onnx --name \"two\nlines\" --to x", 2, "a line of text"},
      {"plugin model.onnx --name mine --to lv2", 1, "no bundle of this tool"},
      {"plugin model.onnx --to /dev/null", 1, "/dev/null"},
      {"pipewire model.onnx --class-gain Nobody=1 --plugins x --to c", 2, "no class 'Nobody'"},
      {"pipewire model.onnx --rest 8 --plugins x --to c", 2, "+12 dB"},
  };
  for (const auto& row : rows)
    ExpectPart(Run(row.line, row.status).err, row.text);
  EXPECT_EQ(folder.Names(), (std::vector<std::string>{"bad.onnx", "lv2", "model.onnx"}));
}

/// With a stand-in for systemctl: there is no service manager where tests run.
TEST_F(Wrappers, DevicesAreListedSwitchedAndSet) {
  std::filesystem::create_directory(folder / "bin");
  WriteFile(folder / "bin/systemctl",
            "#!/bin/sh\necho \"$@\" >> log\n"
            "if [ -e broken ]; then echo Failed to connect to bus; exit 1; fi\n");
  std::filesystem::permissions(folder / "bin/systemctl", std::filesystem::perms::owner_all);
  const auto run = [&](const std::string& line, int exitStatus = 0) {
    const Outcome outcome = folder.Run("HOME=$PWD PATH=$PWD/bin:/bin $TOOL pipewire " + line);
    EXPECT_EQ(outcome.exitStatus, exitStatus) << line << '\n' << outcome.err;
    return outcome.out + outcome.err;
  };
  ExpectPart(run("--list"), "no virtual devices");
  ExpectPart(run("model.onnx --name Mine"), "kalvrin pipewire --on mine");
  run("model.onnx --name 'My sink' --sink --rest -20dB");
  run("--on mine");
  run("--off mine");
  EXPECT_EQ(ReadFile(folder / "log"), "--user daemon-reload\n"
                                      "--user enable kalvrin-mine.service\n"
                                      "--user restart kalvrin-mine.service\n"
                                      "--user disable --now kalvrin-mine.service\n");
  ExpectPart(ReadFile(folder / ".config/systemd/user/kalvrin-mine.service"),
             "ExecStart=pipewire -c \"" + folder / ".config/pipewire/kalvrin-mine.conf\"");
  ExpectPart(run("--set 'My sink' 'the \"voice\"=-12dB' master=0"), "as soon as it is on");
  const std::string list = run("--list");
  ExpectPart(list, R"(sink, off: The "voice" -12 dB, Rest -20 dB, Master mute)");
  ExpectPart(list, R"(microphone, off: The "voice" 0 dB, Rest 0 dB, Master 0 dB)");
  WriteFile(folder / "broken", "");
  const struct {
    const char* line;
    int status;
    const char* text;
  } rows[] = {{"--on mine", 1, "Failed to connect to bus"},
              {"--on yours", 1, "there is no virtual device 'yours'"},
              {"--on ../mine", 1, "there is no virtual device"},
              {"--set mine Nobody=1", 2, "has no gain 'Nobody'"},
              {"--set mine", 2, "--set needs gains"},
              {"--list --on mine", 2, "one at a time"},
              {"--list mine", 2, "one too many"}};
  for (const auto& row : rows)
    ExpectPart(run(row.line, row.status), row.text);
  std::filesystem::remove(folder / "bin/systemctl");
  const Outcome none = folder.Run("HOME=$PWD PATH=$PWD/bin $TOOL pipewire --on mine");
  ExpectPart(none.err, "systemctl is not installed");
}

TEST_F(Wrappers, TheMicrophoneHasTheGainsAskedFor) {
  Run("pipewire model.onnx --class-gain 'the \"VOICE\"=-6dB' --rest 0 --name Mine "
      "--plugins " +
      folder / "p" + " --to c.conf");
  const std::string text = ReadFile(folder / "c.conf");
  for (const std::string& part :
       {std::string(R"("The \"voice\"" = -6)"), std::string("\"Rest\" = -60"),
        std::string("label = mine_mono"), folder / "p/kalvrin_ladspa.so"})
    ExpectPart(text, part);
}

}  // namespace
