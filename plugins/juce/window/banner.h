#pragma once

#include <juce_gui_basics/juce_gui_basics.h>

#include <functional>

namespace Orvik::Tesmo::Plugin {

/// A line of words across the window: quiet, a hint with a button, or what has gone wrong.
class Banner final : public juce::Component {
public:
  enum class Kind { Quiet, Hint, Fault };

  Banner();

  /// `action` and `close` may be null; then their buttons are not there.
  void Say(Kind newKind, const juce::String& newText, const juce::String& actionText = {},
           std::function<void()> action = nullptr, std::function<void()> close = nullptr);
  Kind GetKind() const { return kind; }
  /// That the text needs at that width.
  int HeightFor(int width) const;

  void paint(juce::Graphics& g) override;
  void resized() override;
  std::unique_ptr<juce::AccessibilityHandler> createAccessibilityHandler() override;

private:
  juce::AttributedString Words() const;
  int ButtonsWidth() const;

  Kind kind = Kind::Quiet;
  juce::String text;
  juce::TextButton act, close{"OK"};
  std::function<void()> onAct, onClose;
};

}  // namespace Orvik::Tesmo::Plugin
