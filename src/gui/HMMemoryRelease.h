// Gives memory the application no longer uses back to the system.
//
// An idle tray application spends most of its life doing nothing; what start-up and a
// closed window left behind (freed heap the allocator keeps, rendered pixmaps in Qt's
// cache) would otherwise stay resident for days. The application controller calls this
// once start-up has settled and the main panel's controller each time the panel closes.
#pragma once

namespace HMMemoryRelease {

// Empties Qt's pixmap cache and returns free heap pages to the system.
void releaseUnusedMemory();

} // namespace HMMemoryRelease
