// Work dispatch between the GUI thread and the shared background pool.
//
// Every completion the managers hand back runs on the main thread through
// dispatch_to_main; slow work (log collection, archive writing) goes to the process-wide
// default pool through dispatch_to_bg. The functions keep no state of their own.
#pragma once

#include <functional>

class QThreadPool;

void dispatch_to_bg(std::function<void()> block);
void dispatch_to_main(std::function<void()> block);
QThreadPool *bg_queue_default();

// True on the thread that runs the application's event loop.
bool is_main_thread();
