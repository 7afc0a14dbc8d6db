// Screen queries the controls use to pick image resolutions.
#pragma once

// True when the primary screen reports a device pixel ratio of at least 2.0; false when
// there is no screen (offscreen or headless runs).
bool is_retina();
