/* The recurrence of a block and its derivatives; see Held in network.py. Built when the training
   starts. All arrays are dense: `input` [band, time, item, 3 * UNITS] with gate, new value and way
   out of each unit; `held`, `output` [band, time, item, UNITS]; `before` [band, item, UNITS]. */
#include <math.h>
#include <stdint.h>

static inline float Sigmoid(float x) {
  return 1.0f / (1.0f + expf(-x));
}

void Forward(const float* input, const float* before, float* held, float* output, int64_t bands,
             int64_t times, int64_t items) {
#pragma omp parallel for
  for (int64_t row = 0; row < bands * items; row++) {
    float h[UNITS];
    for (int u = 0; u < UNITS; u++)
      h[u] = before[row * UNITS + u];
    for (int64_t time = 0; time < times; time++) {
      const int64_t at = (row / items * times + time) * items + row % items;
      const float* x = input + at * 3 * UNITS;
      for (int u = 0; u < UNITS; u++) {
        const float z = Sigmoid(x[u]), c = fmaxf(x[UNITS + u], 0.0f), g = x[2 * UNITS + u];
        h[u] = c + z * (h[u] - c);
        held[at * UNITS + u] = h[u];
        output[at * UNITS + u] = h[u] * g * Sigmoid(g);
      }
    }
  }
}

void Backward(const float* input, const float* before, const float* held, const float* toOutput,
              float* toInput, int64_t bands, int64_t times, int64_t items) {
#pragma omp parallel for
  for (int64_t row = 0; row < bands * items; row++) {
    float later[UNITS] = {0.0f};
    for (int64_t time = times - 1; time >= 0; time--) {
      const int64_t at = (row / items * times + time) * items + row % items;
      const float *x = input + at * 3 * UNITS, *h = held + at * UNITS, *o = toOutput + at * UNITS;
      const float* last = time > 0 ? h - items * UNITS : before + row * UNITS;
      float* d = toInput + at * 3 * UNITS;
      for (int u = 0; u < UNITS; u++) {
        const float z = Sigmoid(x[u]), c = fmaxf(x[UNITS + u], 0.0f), g = x[2 * UNITS + u],
                    s = Sigmoid(g);
        const float e = later[u] + o[u] * g * s;
        d[u] = e * (last[u] - c) * z * (1.0f - z);
        d[UNITS + u] = x[UNITS + u] > 0.0f ? e * (1.0f - z) : 0.0f;
        d[2 * UNITS + u] = o[u] * h[u] * s * (1.0f + g * (1.0f - s));
        later[u] = e * z;
      }
    }
  }
}
