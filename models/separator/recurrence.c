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

/* sum[item][column] = bias[column] + the product of left [item, depth] and right [depth, column];
   without bias it is added to what is there. `columns` is a multiple of 32. */
static void Multiply(const float* left, const float* right, const float* bias, float* sum,
                     int64_t items, int64_t depth, int64_t columns) {
  for (int64_t item = 0; item < items; item++)
    for (int64_t first = 0; first < columns; first += 32) {
      float part[32];
      for (int c = 0; c < 32; c++)
        part[c] = bias ? bias[first + c] : sum[item * columns + first + c];
      for (int64_t k = 0; k < depth; k++) {
        const float factor = left[item * depth + k];
        for (int c = 0; c < 32; c++)
          part[c] += factor * right[k * columns + first + c];
      }
      for (int c = 0; c < 32; c++)
        sum[item * columns + first + c] = part[c];
    }
}

/* The gated recurrent layer of the memory; see Recalled in network.py. `input` [time, item, 3 *
   HIDDEN] has reset, update and new value before what is recalled is added; `weights` [HIDDEN, 3 *
   HIDDEN]; `held` [time, item, HIDDEN]; `gates` [time, item, 4 * HIDDEN] is for the derivatives:
   the three gates, and what is recalled for the third. */
void RecallForward(const float* input, const float* weights, const float* bias, const float* before,
                   float* held, float* gates, int64_t times, int64_t items) {
  float recalled[items * 3 * HIDDEN];
  for (int64_t time = 0; time < times; time++, before = held, held += items * HIDDEN) {
    Multiply(before, weights, bias, recalled, items, HIDDEN, 3 * HIDDEN);
    for (int64_t item = 0; item < items; item++, input += 3 * HIDDEN, gates += 4 * HIDDEN) {
      const float *a = recalled + item * 3 * HIDDEN, *last = before + item * HIDDEN;
      for (int u = 0; u < HIDDEN; u++) {
        const float r = Sigmoid(input[u] + a[u]), z = Sigmoid(input[HIDDEN + u] + a[HIDDEN + u]);
        const float n = tanhf(input[2 * HIDDEN + u] + r * a[2 * HIDDEN + u]);
        gates[u] = r, gates[HIDDEN + u] = z, gates[2 * HIDDEN + u] = n;
        gates[3 * HIDDEN + u] = a[2 * HIDDEN + u];
        held[item * HIDDEN + u] = n + z * (last[u] - n);
      }
    }
  }
}

/* `weights` [3 * HIDDEN, HIDDEN]; `toInput` and `toRecalled`, [time, item, 3 * HIDDEN], get the
 * derivatives. */
void RecallBackward(const float* weights, const float* before, const float* held,
                    const float* gates, const float* toOutput, float* toInput, float* toRecalled,
                    int64_t times, int64_t items) {
  float later[items * HIDDEN];
  for (int64_t i = 0; i < items * HIDDEN; i++)
    later[i] = 0.0f;
  for (int64_t time = times - 1; time >= 0; time--) {
    const float* last = time > 0 ? held + (time - 1) * items * HIDDEN : before;
    for (int64_t item = 0; item < items; item++) {
      const int64_t at = time * items + item;
      const float* g = gates + at * 4 * HIDDEN;
      float *d = toInput + at * 3 * HIDDEN, *e = toRecalled + at * 3 * HIDDEN;
      for (int u = 0; u < HIDDEN; u++) {
        const float r = g[u], z = g[HIDDEN + u], n = g[2 * HIDDEN + u];
        const float h = toOutput[at * HIDDEN + u] + later[item * HIDDEN + u];
        d[2 * HIDDEN + u] = h * (1.0f - z) * (1.0f - n * n);
        d[HIDDEN + u] = e[HIDDEN + u] = h * (last[item * HIDDEN + u] - n) * z * (1.0f - z);
        d[u] = e[u] = d[2 * HIDDEN + u] * g[3 * HIDDEN + u] * r * (1.0f - r);
        e[2 * HIDDEN + u] = d[2 * HIDDEN + u] * r;
        later[item * HIDDEN + u] = h * z;
      }
    }
    Multiply(toRecalled + time * items * 3 * HIDDEN, weights, 0, later, items, 3 * HIDDEN, HIDDEN);
  }
}
