/* Two channels of raw 32-bit floats from standard input to standard output, with the gain of one
 * class changed. usage: gains MODEL CLASS GAIN <in.f32 >out.f32 */
#include <kalvrin.h>
#include <stdio.h>
#include <stdlib.h>
#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#endif

int main(int count, char **argument) {
  static char model[1 << 24];
  char reason[KALVRIN_REASON_SIZE];
  kalvrin_request request = {2, 0, 0};
  kalvrin_sizes sizes;
  kalvrin_stream *stream;
  FILE *file = count == 4 ? fopen(argument[1], "rb") : NULL;
  size_t size = file ? fread(model, 1, sizeof model, file) : 0, frames;
  float *block;

#ifdef _WIN32 /* samples are no text */
  _setmode(_fileno(stdin), _O_BINARY);
  _setmode(_fileno(stdout), _O_BINARY);
#endif
  if (kalvrin_create(model, size, &request, reason, sizeof reason, &stream) != KALVRIN_OK) {
    fprintf(stderr, "gains: %s\n", reason);
    return 1;
  }
  kalvrin_reset_gains(stream);
  if (kalvrin_set_gain(stream, argument[2], (float)atof(argument[3])) != KALVRIN_OK) {
    fprintf(stderr, "gains: the model has no class %s\n", argument[2]);
    return 1;
  }
  kalvrin_get_sizes(stream, &sizes);
  fprintf(stderr, "gains: %lu frames late\n", (unsigned long)sizes.latency_frames);
  block = calloc(sizes.block_frames, 2 * sizeof *block);
  while (block && (frames = fread(block, 2 * sizeof *block, sizes.block_frames, stdin)) != 0) {
    if (kalvrin_process_interleaved(stream, block, block, sizes.block_frames) != KALVRIN_OK) break;
    fwrite(block, 2 * sizeof *block, frames, stdout);
  }
  free(block);
  kalvrin_destroy(stream);
  return 0;
}
