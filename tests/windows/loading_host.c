/* Calls the C interface as the Python package does, through a library that is loaded by its path,
 * used, unloaded and loaded again. usage: loading_host LIBRARY MODEL RATE CLASS GAIN <in.f32
 * >out.f32, one channel. A refusal is said in words, with exit status 1. */
#include <fcntl.h>
#include <io.h>
#include <kalvrin.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <windows.h>

#define FUNCTION(name) ((__typeof__(&name))(void *)GetProcAddress(library, #name))

static char model[1 << 24], reason[KALVRIN_REASON_SIZE];
static float block[1 << 16];

static int fail(const char *words) {
  fprintf(stderr, "loading_host: %s\n", words);
  return 1;
}

static int run(const wchar_t *path, size_t size, int rate, const char *name, double gain, int last) {
  /* Python's ctypes passes these flags. */
  HMODULE library = LoadLibraryExW(path, NULL, LOAD_LIBRARY_SEARCH_DEFAULT_DIRS | LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR);
  kalvrin_request request = {1, 0, 0};
  kalvrin_model *loaded;
  kalvrin_stream *stream;
  kalvrin_sizes sizes;
  const char *text;
  if (!library) return fail("the library cannot be loaded");
  if (FUNCTION(kalvrin_load_model)(model, size, reason, sizeof reason, &loaded) != KALVRIN_OK) return fail(reason);
  if (FUNCTION(kalvrin_create_at_rate)(loaded, &request, rate, reason, sizeof reason, &stream) != KALVRIN_OK)
    return fail(reason);
  FUNCTION(kalvrin_release_model)(loaded);
  FUNCTION(kalvrin_set_high_band)(stream, KALVRIN_HIGH_BAND_FOLLOW);
  FUNCTION(kalvrin_get_sizes)(stream, &sizes);
  if (FUNCTION(kalvrin_get_class_name)(stream, sizes.class_count, &text) != KALVRIN_OK || strcmp(text, "Rest") != 0)
    return fail("the class behind the last is not Rest");
  FUNCTION(kalvrin_reset_gains)(stream);
  if (FUNCTION(kalvrin_set_gain)(stream, name, (float)gain) != KALVRIN_OK) return fail("no such class");
  _lseek(0, 0, SEEK_SET);
  while (_read(0, block, (unsigned)(sizes.block_frames * sizeof *block)) == (int)(sizes.block_frames * sizeof *block)) {
    if (FUNCTION(kalvrin_process_interleaved)(stream, block, block, sizes.block_frames) != KALVRIN_OK)
      return fail("the model fails");
    if (last) _write(1, block, (unsigned)(sizes.block_frames * sizeof *block));
  }
  FUNCTION(kalvrin_destroy)(stream);
  FreeLibrary(library);
  return GetModuleHandleW(path) ? fail("the library stays") : 0;
}

int wmain(int count, wchar_t **argument) {
  FILE *file = count == 6 ? _wfopen(argument[2], L"rb") : NULL;
  size_t size = file ? fread(model, 1, sizeof model, file) : 0;
  char name[64];
  int rate, failed;
  if (!file) return fail("there is no such model");
  rate = _wtoi(argument[3]);
  wcstombs(name, argument[4], sizeof name);
  _setmode(0, _O_BINARY);
  _setmode(1, _O_BINARY);
  failed = run(argument[1], size, rate, name, _wtof(argument[5]), 0);
  return failed ? failed : run(argument[1], size, rate, name, _wtof(argument[5]), 1);
}
