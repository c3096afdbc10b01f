// A host as Microsoft's compiler makes one: by clang in that compiler's conventions, linked with
// the .lib files. usage: msvc_host MODEL CLASS GAIN <in.f32 >out.f32, one channel.
// The C interface makes the output. The class is called in the same conventions, and has to make
// the same: its table has a slot more than this compiler expects, and all else fits.

#include "kalvrin.h"

#include "kalvrin/stream_processor.h"

extern "C" {  // of the system's C library, whose headers are not here
struct FILE;
FILE* fopen(const char*, const char*);
size_t fread(void*, size_t, size_t, FILE*);
int _setmode(int, int);
int _read(int, void*, unsigned);
int _write(int, const void*, unsigned);
double atof(const char*);
int memcmp(const void*, const void*, size_t);
void* memcpy(void*, const void*, size_t);
[[noreturn]] void exit(int);
int __getmainargs(int*, char***, char***, int, int*);
int _fltused = 1;
}

namespace {

/// The class as g++ lays it out, in the words of this compiler.
struct GccStreamProcessor {
  virtual void Destroy() = 0;
  virtual void Delete() = 0;
  virtual int GetSampleRate() = 0;
  virtual bool SetMasterGain(float gain) = 0;
  virtual void ResetGains() = 0;
  virtual bool SetAudioClassGain(const char16_t* name, float gain) = 0;
  virtual void SetSequenceSize(unsigned long long size) = 0;
  virtual void SetChannelCount(unsigned long long count) = 0;
  virtual void ProcessBlock(const float* const* input, float* const* output,
                            unsigned long long frames, int continuation) = 0;
};

template <int number>
int Slot() {
  return number;
}
/// The slot of the table that this compiler calls for the first operation behind the destructor.
int FirstSlot() {
  int (*table[])() = {Slot<0>, Slot<1>, Slot<2>, Slot<3>};
  void* object = table;
  return reinterpret_cast<Orvik::Tesmo::StreamProcessor*>(&object)->GetSampleRate();
}

char model[1 << 24], reason[KALVRIN_REASON_SIZE];
float viaC[256], viaClass[256];
char16_t wide[64];

int Run(char** argument) {
  if (FirstSlot() != 1) return 10;
  FILE* const file = fopen(argument[1], "rb");
  const size_t size = file ? fread(model, 1, sizeof model, file) : 0;
  const kalvrin_request request = {1, 0, 256};
  kalvrin_stream* stream = nullptr;
  if (kalvrin_create(model, size, &request, reason, sizeof reason, &stream) != KALVRIN_OK)
    return 11;
  auto* const object =
      reinterpret_cast<GccStreamProcessor*>(CreateStreamProcessor(model, size, 0, 1, 256));
  if (!object) return 12;

  for (int i = 0; argument[2][i]; ++i)
    wide[i] = static_cast<char16_t>(argument[2][i]);
  const auto gain = static_cast<float>(atof(argument[3]));
  kalvrin_sizes sizes;
  kalvrin_get_sizes(stream, &sizes);
  if (object->GetSampleRate() != sizes.sample_rate_hz) return 13;
  kalvrin_reset_gains(stream);
  object->ResetGains();
  if (kalvrin_set_gain(stream, argument[2], gain) != KALVRIN_OK) return 14;
  if (!object->SetAudioClassGain(wide, gain) || object->SetAudioClassGain(u"Nobody", 1)) return 15;
  if (object->SetMasterGain(-1)) return 16;

  while (_read(0, viaC, sizeof viaC) == sizeof viaC) {
    memcpy(viaClass, viaC, sizeof viaC);
    float* const channels[] = {viaClass};
    object->ProcessBlock(channels, channels, 256, 1);
    if (kalvrin_process_interleaved(stream, viaC, viaC, 256) != KALVRIN_OK) return 17;
    if (memcmp(viaC, viaClass, sizeof viaC) != 0) return 18;
    _write(1, viaC, sizeof viaC);
  }
  object->Delete();
  kalvrin_destroy(stream);
  return 0;
}

}  // namespace

extern "C" void Start() {
  constexpr int binary = 0x8000;
  _setmode(0, binary);
  _setmode(1, binary);
  int count = 0, startInfo = 0;
  char **arguments = nullptr, **environment = nullptr;
  __getmainargs(&count, &arguments, &environment, 0, &startInfo);
  exit(count == 4 ? Run(arguments) : 2);
}
