// What a screen reader sees of the drawn view: the tag field, "+ ADD TAG",
// the drop zone, the progress, each INTERVAL and LEVEL segment with its state,
// and the log as a list, each where it is drawn.
#pragma once

class HUDView;

namespace HUDAccessible {

// Teaches Qt's accessibility to describe every HUDView; once per process.
void install();
// Tells assistive technology that the keyboard moved to `control` (an index
// into HUDLayout::focusOrder).
void focusMoved(HUDView& view, int control);
// Tells it that the batch's progress or the selected clip changed.
void progressChanged(HUDView& view);
void tagChanged(HUDView& view);

} // namespace HUDAccessible
