#ifndef KALVRIN_H
#define KALVRIN_H

/*
 * kalvrin for C: multichannel audio through a neural model that splits every channel into named
 * classes, mixed back together by gains that the host sets while audio runs. C89 or later, and
 * nothing else; link with -lkalvrin_c.
 *
 * A stream, from first to last:
 *   1. kalvrin_create: the slow work. It says in words why a model is refused.
 *   2. kalvrin_reset_gains, kalvrin_set_gain and the like. A new stream has every gain at 0: it is
 *      silent until one of these is called.
 *   3. kalvrin_process_planar or kalvrin_process_interleaved, again and again, frames in and as
 *      many out, later by kalvrin_sizes.latency_frames.
 *   4. kalvrin_destroy.
 *
 * Threads: one call at a time on one stream, from any thread. The gain functions alone may run
 * while another thread processes. Different streams are independent, and kalvrin_create may run on
 * several threads at once.
 *
 * Real time: the process functions and the gain functions allocate nothing of the library's own,
 * take no lock and make no system call. The inference engine below makes a few small allocations
 * per evaluation. All other functions are slow: never call them on the audio thread.
 *
 * Every text is zero-terminated UTF-8. Audio is 32-bit float, full scale 1; a frame is one sample
 * on every channel. No C++ exception leaves a function. A null stream or a null pointer to a result
 * gives KALVRIN_INVALID_ARGUMENT; kalvrin_destroy takes null.
 */

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifdef _WIN32
#define KALVRIN_API
#else
#define KALVRIN_API __attribute__((visibility("default")))
#endif

/* What every function answers. The numbers never change; later versions may add some. */
typedef enum kalvrin_status {
  KALVRIN_OK = 0,
  KALVRIN_INVALID_ARGUMENT = 1, /* of this call; nothing was done */
  KALVRIN_MODEL_REFUSED = 2,    /* no model, outside the contract, or not at these sizes */
  KALVRIN_ENGINE_MISSING = 3,   /* no usable inference engine in the library's folder */
  KALVRIN_ENGINE_FAILED = 4,    /* the model failed while audio ran */
  KALVRIN_OUT_OF_MEMORY = 5,
  KALVRIN_NOT_FOUND = 6 /* no class of that name, nothing at that index */
} kalvrin_status;

typedef struct kalvrin_stream kalvrin_stream;
typedef struct kalvrin_model kalvrin_model;

/* What the caller may ask for; 0 leaves the choice to the model. */
typedef struct kalvrin_request {
  size_t channels;     /* 0: as the model fixes them, else 2 */
  size_t windows;      /* per evaluation; 0: the model's own number, else 4 */
  size_t block_frames; /* frames of a process call; 0: one hop of the model */
} kalvrin_request;

/* The sizes of a stream. */
typedef struct kalvrin_sizes {
  size_t channels;
  size_t windows;           /* per evaluation; they overlap by one half */
  size_t block_frames;      /* the most that a process call takes */
  size_t window_frames;     /* length of a window */
  size_t hop_frames;        /* half of it */
  size_t lookahead_windows; /* of the model */
  size_t latency_frames;    /* from a frame in to the same frame out */
  size_t class_count;       /* without Rest */
  int sample_rate_hz;       /* the model's; 0: it does not say */
} kalvrin_sizes;

/* Room that a reason wants; a longer one is cut. */
#define KALVRIN_REASON_SIZE 1024

/*
 * Builds a stream for one model. model: model_size bytes of an ONNX file, read during the call
 * only. request: null stands for zeros.
 *
 * stream gets the new stream, or null on failure. reason, if not null, gets reason_size bytes at
 * most, the terminating zero among them: nothing on success, else one line that says what is wrong,
 * followed where there is more to say by lines that begin with "found: ", "expected: " and
 * "change: ".
 *
 * KALVRIN_MODEL_REFUSED, KALVRIN_ENGINE_MISSING, KALVRIN_OUT_OF_MEMORY, KALVRIN_INVALID_ARGUMENT
 * (no model, or one of 4 GiB or more). A damaged model can end the process inside the engine.
 */
KALVRIN_API kalvrin_status kalvrin_create(const void* model, size_t model_size,
                                          const kalvrin_request* request, char* reason,
                                          size_t reason_size, kalvrin_stream** stream);

/*
 * For a process of many streams: loads a model once, and makes streams from it. These differ in
 * nothing from those of kalvrin_create, except that the bytes of the model are needed no more.
 * Streams of equal bytes share one copy of the weights either way, and nothing else.
 *
 * model, reason and the status of kalvrin_load_model: as for kalvrin_create; sizes that a model
 * does not have are refused by kalvrin_create_from. That may run on several threads at once for one
 * model. kalvrin_release_model takes null; the streams of the model may live on.
 */
KALVRIN_API kalvrin_status kalvrin_load_model(const void* model, size_t model_size, char* reason,
                                              size_t reason_size, kalvrin_model** loaded);
KALVRIN_API kalvrin_status kalvrin_create_from(const kalvrin_model* model,
                                               const kalvrin_request* request, char* reason,
                                               size_t reason_size, kalvrin_stream** stream);
KALVRIN_API void kalvrin_release_model(kalvrin_model* model);

/*
 * As kalvrin_create_from, for audio of any sample rate within 1/256 and 256 times the model's
 * (KALVRIN_INVALID_ARGUMENT beyond); 0: the model's. Only what the model changes is converted: with
 * every gain 1 the output is the delayed input at every frequency, also above the model's band.
 * Where the rates differ
 * - block_frames and latency_frames of the sizes are frames of the audio; a process call may bring
 *   any number up to block_frames, and the latency stays;
 * - input that is not finite counts as silence;
 * - a process call in which the model fails (KALVRIN_ENGINE_FAILED) writes its output all the same,
 *   and the stretch without a result is the input at the gain of Rest.
 */
KALVRIN_API kalvrin_status kalvrin_create_at_rate(const kalvrin_model* model,
                                                  const kalvrin_request* request,
                                                  int sample_rate_hz, char* reason,
                                                  size_t reason_size, kalvrin_stream** stream);

/* Ends the stream and gives back all it holds, the texts that it gave included. */
KALVRIN_API void kalvrin_destroy(kalvrin_stream* stream);

KALVRIN_API kalvrin_status kalvrin_get_sizes(const kalvrin_stream* stream, kalvrin_sizes* sizes);

/* The name of a class, index from 0 in the order of the model's output; index class_count gives
 * "Rest", what no class claims. The text lives as long as the stream. KALVRIN_NOT_FOUND. */
KALVRIN_API kalvrin_status kalvrin_get_class_name(const kalvrin_stream* stream, size_t index,
                                                  const char** name);

/* What is legal in the model but will surprise (a class that no gain can reach, ...), a sentence
 * each, index from 0. The text lives as long as the stream. KALVRIN_NOT_FOUND behind the last. */
KALVRIN_API kalvrin_status kalvrin_get_note(const kalvrin_stream* stream, size_t index,
                                            const char** note);

/* Linear gain of the class called name (letters A to Z in either case) or of "Rest": finite, from
 * 0. It counts from the next evaluation on and fades in over one hop. KALVRIN_NOT_FOUND,
 * KALVRIN_INVALID_ARGUMENT. */
KALVRIN_API kalvrin_status kalvrin_set_gain(kalvrin_stream* stream, const char* name, float gain);

/* Linear factor on everything: finite, from 0. */
KALVRIN_API kalvrin_status kalvrin_set_master_gain(kalvrin_stream* stream, float gain);

/* What plays above the band of the model, where it knows no classes. */
typedef enum kalvrin_high_band {
  KALVRIN_HIGH_BAND_FOLLOW = 0, /* what the mix made of the model's top octave */
  KALVRIN_HIGH_BAND_REST = 1    /* the gain of Rest */
} kalvrin_high_band;

/* A stream follows until it is told otherwise; at the model's own rate there is no such band. */
KALVRIN_API kalvrin_status kalvrin_set_high_band(kalvrin_stream* stream, kalvrin_high_band choice);

/* Every gain becomes 1: the output is the delayed input. */
KALVRIN_API kalvrin_status kalvrin_reset_gains(kalvrin_stream* stream);

/*
 * Takes frames frames from input and writes as many to output; one array per channel on both sides.
 * input[c] and output[c] may be the same array. frames: at most block_frames
 * (KALVRIN_INVALID_ARGUMENT above that); exactly block_frames where it divides
 * hop_frames * windows, as a shorter block would make the latency grow.
 *
 * KALVRIN_ENGINE_FAILED when the model fails: output is not written, the frames that waited for
 * this evaluation are dropped, and the next call goes on with what it is given.
 */
KALVRIN_API kalvrin_status kalvrin_process_planar(kalvrin_stream* stream, const float* const* input,
                                                  float* const* output, size_t frames);

/* Likewise of frames * channels samples, frame by frame. input and output may be the same array. */
KALVRIN_API kalvrin_status kalvrin_process_interleaved(kalvrin_stream* stream, const float* input,
                                                       float* output, size_t frames);

/* The stream starts again from silence, the model's memory included; the gains stay.
 * KALVRIN_OUT_OF_MEMORY: the stream runs on as it was. */
KALVRIN_API kalvrin_status kalvrin_restart(kalvrin_stream* stream);

/* A few words on a status; never null. The text is static. */
KALVRIN_API const char* kalvrin_status_text(kalvrin_status status);

/* The version of the library, such as "1.0.0". The text is static. */
KALVRIN_API const char* kalvrin_version(void);

#ifdef __cplusplus
}
#endif

#endif
