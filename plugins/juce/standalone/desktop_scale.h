#pragma once

namespace Orvik::Tesmo::Plugin {

/// How much larger than on a screen of 96 dots per inch the user wants everything: what GDK_SCALE
/// or the resource Xft.dpi says; 1 where neither does.
double WantedScale();

}  // namespace Orvik::Tesmo::Plugin
