// Runs calls through a model as a server would, one stream each. The calls come from a file of
// arrivals, a line each: the second at which the call begins, its audio as raw 32-bit floats (one
// channel, at the model's rate), and where its result goes.
//
// usage: calls MODEL CLASS GAIN ARRIVALS THREADS MOST
//
// MOST: with so many calls at once, a further one is refused. SIGTERM: no new calls are taken,
// those that run go on to their end, and then the program ends. So a new version takes over without
// a gap: start it, let it take the new calls, send SIGTERM to the old one.

#include <kalvrin.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

volatile std::sig_atomic_t isAskedToEnd = 0;

struct EndStream {
  void operator()(kalvrin_stream* stream) const { kalvrin_destroy(stream); }
};

struct Call {
  std::unique_ptr<kalvrin_stream, EndStream> stream;
  std::vector<float> audio;  // in place: the result, late by the latency of the stream
  std::string result;
  std::size_t position = 0;
  Clock::time_point due;  // of the next block
};

std::vector<char> ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    std::fprintf(stderr, "calls: cannot read %s\n", path.c_str());
    std::exit(1);
  }
  return {std::istreambuf_iterator<char>(file), {}};
}

// One audio thread. It only processes blocks: streams are made, ended and written elsewhere, since
// all of that may wait.
class Worker {
public:
  Worker(std::size_t blockFrames, Clock::duration blockTime)
      : blockFrames(blockFrames), blockTime(blockTime), thread([this] { Run(); }) {}
  ~Worker() {
    isOver = true;
    thread.join();
  }

  void Take(std::unique_ptr<Call> call) {
    ++load;
    const std::lock_guard<std::mutex> guard(lock);
    arrived.push_back(std::move(call));
  }

  // The calls that have ended since the last time.
  std::vector<std::unique_ptr<Call>> Ended() {
    const std::lock_guard<std::mutex> guard(lock);
    return std::exchange(ended, {});
  }

  std::atomic<int> load{0};  // calls that it has
  std::atomic<long> blocks{0}, late{0}, failed{0};

private:
  void Run() {
    while (!isOver) {
      Exchange();
      const auto next = std::min_element(
          calls.begin(), calls.end(), [](const auto& a, const auto& b) { return a->due < b->due; });
      // New calls are looked for at least once in the time of a block.
      const auto wake = Clock::now() + blockTime / 4;
      if (next == calls.end() || (*next)->due > wake) {
        std::this_thread::sleep_until(wake);
        continue;
      }
      std::this_thread::sleep_until((*next)->due);
      if (!Process(**next)) {
        done.push_back(std::move(*next));
        calls.erase(next);
      }
    }
  }

  // Whoever holds the lock only moves pointers.
  void Exchange() {
    const std::unique_lock<std::mutex> guard(lock, std::try_to_lock);
    if (!guard) return;  // next time
    std::move(arrived.begin(), arrived.end(), std::back_inserter(calls));
    arrived.clear();
    std::move(done.begin(), done.end(), std::back_inserter(ended));
    done.clear();
  }

  // False after the last block.
  bool Process(Call& call) {
    float* const block = call.audio.data() + call.position;
    if (kalvrin_process_planar(call.stream.get(), &block, &block, blockFrames) != KALVRIN_OK)
      ++failed;  // the block stays as it was, and the call goes on
    ++blocks;
    if (Clock::now() > call.due + blockTime / 2) ++late;
    call.due += blockTime;
    call.position += blockFrames;
    return call.position < call.audio.size();
  }

  const std::size_t blockFrames;
  const Clock::duration blockTime;
  std::mutex lock;
  std::vector<std::unique_ptr<Call>> arrived, ended;  // under the lock
  std::vector<std::unique_ptr<Call>> calls, done;     // the thread's own
  std::atomic<bool> isOver{false};
  std::thread thread;
};

void Finish(Worker& worker) {
  for (const auto& call : worker.Ended()) {
    std::ofstream file(call->result, std::ios::binary);
    file.write(reinterpret_cast<const char*>(call->audio.data()),
               static_cast<std::streamsize>(call->audio.size() * sizeof(float)));
    if (!file) std::fprintf(stderr, "calls: cannot write %s\n", call->result.c_str());
    --worker.load;
  }
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 7) {
    std::fprintf(stderr, "usage: calls MODEL CLASS GAIN ARRIVALS THREADS MOST\n");
    return 2;
  }
  const char* const className = arguments[2];
  const float gain = std::strtof(arguments[3], nullptr);
  const int threads = std::atoi(arguments[5]), most = std::atoi(arguments[6]);
  std::ifstream arrivals(arguments[4]);
  if (!arrivals || threads < 1 || most < 1) {
    std::fprintf(stderr, "calls: cannot read %s, or THREADS or MOST is no number from 1\n",
                 arguments[4]);
    return 2;
  }
  std::signal(SIGTERM, [](int) { isAskedToEnd = 1; });

  // Loaded once; every call's stream is made from it.
  const std::vector<char> bytes = ReadFile(arguments[1]);
  char reason[KALVRIN_REASON_SIZE];
  kalvrin_model* model = nullptr;
  if (kalvrin_load_model(bytes.data(), bytes.size(), reason, sizeof reason, &model) != KALVRIN_OK) {
    std::fprintf(stderr, "calls: %s\n", reason);
    return 1;
  }
  const auto makeStream = [&] {
    const kalvrin_request request = {1, 0, 0};
    kalvrin_stream* stream = nullptr;
    if (kalvrin_create_from(model, &request, reason, sizeof reason, &stream) != KALVRIN_OK) {
      std::fprintf(stderr, "calls: %s\n", reason);
      std::exit(1);
    }
    kalvrin_reset_gains(stream);
    if (kalvrin_set_gain(stream, className, gain) != KALVRIN_OK) {
      std::fprintf(stderr, "calls: the model has no class %s, or the gain is below 0\n", className);
      std::exit(1);
    }
    return std::unique_ptr<kalvrin_stream, EndStream>(stream);
  };
  kalvrin_sizes sizes;
  kalvrin_get_sizes(makeStream().get(), &sizes);
  const double rateHz = sizes.sample_rate_hz > 0 ? sizes.sample_rate_hz : 48000;
  const auto blockTime = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double>(static_cast<double>(sizes.block_frames) / rateHz));

  std::vector<std::unique_ptr<Worker>> workers;
  for (int i = 0; i < threads; ++i)
    workers.push_back(std::make_unique<Worker>(sizes.block_frames, blockTime));
  const auto lowest = [&]() -> Worker& {
    return **std::min_element(workers.begin(), workers.end(),
                              [](const auto& a, const auto& b) { return a->load < b->load; });
  };
  const auto load = [&] {
    int sum = 0;
    for (const auto& worker : workers) {
      Finish(*worker);
      sum += worker->load;
    }
    return sum;
  };

  const auto start = Clock::now();
  int taken = 0, refused = 0;
  double second = 0;
  std::string source, result;
  while (isAskedToEnd == 0 && arrivals >> second >> source >> result) {
    const auto arrival =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(second));
    while (isAskedToEnd == 0 && Clock::now() < arrival) {
      load();
      std::this_thread::sleep_until(std::min(arrival, Clock::now() + blockTime));
    }
    if (isAskedToEnd != 0) break;
    if (load() >= most) {
      ++refused;
      continue;
    }
    auto call = std::make_unique<Call>();
    const std::vector<char> audio = ReadFile(source);
    const std::size_t frames = audio.size() / sizeof(float);
    const std::size_t blocks = (frames + sizes.latency_frames) / sizes.block_frames + 1;
    call->audio.resize(blocks * sizes.block_frames);
    std::copy_n(audio.data(), frames * sizeof(float), reinterpret_cast<char*>(call->audio.data()));
    call->result = result;
    call->stream = makeStream();
    call->due = Clock::now() + blockTime;
    lowest().Take(std::move(call));
    ++taken;
  }
  while (load() != 0)
    std::this_thread::sleep_for(blockTime);
  long blocks = 0, late = 0, failed = 0;
  for (const auto& worker : workers) {
    blocks += worker->blocks;
    late += worker->late;
    failed += worker->failed;
  }
  workers.clear();
  kalvrin_release_model(model);
  std::printf("%d calls taken, %d refused; %ld blocks, %ld late, %ld failed\n", taken, refused,
              blocks, late, failed);
}
