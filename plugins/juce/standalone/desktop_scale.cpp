#include "juce/standalone/desktop_scale.h"

#include <X11/Xlib.h>
#include <cstdlib>

namespace Orvik::Tesmo::Plugin {

double WantedScale() {
  double scale = 0;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody sets it
  if (const char* text = std::getenv("GDK_SCALE")) scale = std::strtod(text, nullptr);
  if (Display* display = scale > 0 ? nullptr : XOpenDisplay(nullptr)) {
    if (const char* dpi = XGetDefault(display, "Xft", "dpi"))
      scale = std::strtod(dpi, nullptr) / 96;
    XCloseDisplay(display);
  }
  return scale >= 0.5 && scale <= 8 ? scale : 1;
}

}  // namespace Orvik::Tesmo::Plugin
