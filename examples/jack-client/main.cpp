// A JACK client with one input and one output: what the model does not claim is heard at a tenth.
// Runs until a signal or the end of standard input. A line "CLASS GAIN" there sets a gain while
// audio runs. usage: jack-client MODEL        the server has to run at the model's sample rate

#include <jack/jack.h>
#include <kalvrin/stream_processor.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

using Orvik::Tesmo::StreamProcessor;

namespace {

struct Client {
  jack_client_t* jack = nullptr;
  jack_port_t *in = nullptr, *out = nullptr;
  std::unique_ptr<StreamProcessor> stream;
  std::atomic<std::uint64_t> blocks{0}, failures{0};
};

/// On the audio thread. JACK's block is the block of the stream's creation, so each call is whole.
int Process(jack_nframes_t frames, void* argument) {
  auto& client = *static_cast<Client*>(argument);
  const auto* const in = static_cast<const float*>(jack_port_get_buffer(client.in, frames));
  auto* const out = static_cast<float*>(jack_port_get_buffer(client.out, frames));
  try {
    client.stream->ProcessBlock(&in, &out, frames, 1);
    ++client.blocks;
  } catch (...) {  // the engine failed; the next block tries again
    std::memset(out, 0, frames * sizeof(float));
    ++client.failures;
  }
  return 0;
}

bool SetGain(StreamProcessor& stream, const std::string& name, float gain) {
  return gain >= 0.0f &&
         stream.SetAudioClassGain(std::u16string(name.begin(), name.end()).c_str(), gain);
}

int Fail(const char* why) {
  std::fprintf(stderr, "jack-client: %s\n", why);
  return 1;
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 2) return Fail("usage: jack-client MODEL");
  std::ifstream file(arguments[1], std::ios::binary);
  const std::vector<char> model{std::istreambuf_iterator<char>(file), {}};

  Client client;
  client.jack = jack_client_open("kalvrin", JackNoStartServer, nullptr);
  if (!client.jack) return Fail("there is no JACK server");
  const std::unique_ptr<jack_client_t, int (*)(jack_client_t*)> close(client.jack,
                                                                      jack_client_close);
  client.stream.reset(
      CreateStreamProcessor(model.data(), model.size(), 1, 1, jack_get_buffer_size(client.jack)));
  if (!client.stream) return Fail("the model is refused; kalvrin check says why");
  const auto rate = static_cast<jack_nframes_t>(client.stream->GetSampleRate());
  if (rate != 0 && rate != jack_get_sample_rate(client.jack))
    return Fail(("the model wants JACK to run at " + std::to_string(rate) + " Hz").c_str());
  client.stream->ResetGains();  // a new stream is silent
  SetGain(*client.stream, "Rest", 0.1f);

  client.in = jack_port_register(client.jack, "in", JACK_DEFAULT_AUDIO_TYPE, JackPortIsInput, 0);
  client.out = jack_port_register(client.jack, "out", JACK_DEFAULT_AUDIO_TYPE, JackPortIsOutput, 0);
  jack_set_process_callback(client.jack, Process, &client);
  if (!client.in || !client.out || jack_activate(client.jack) != 0)
    return Fail("JACK does not take the client");
  std::printf("running; CLASS GAIN sets a gain\n");
  std::fflush(stdout);

  std::string name;
  for (float gain = 0; std::cin >> name >> gain;)
    if (!SetGain(*client.stream, name, gain)) std::fprintf(stderr, "no class takes this gain\n");
  jack_deactivate(client.jack);
  std::printf("%llu blocks, %llu failures\n", static_cast<unsigned long long>(client.blocks),
              static_cast<unsigned long long>(client.failures));
}
