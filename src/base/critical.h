// Busy mode. The calls nest; they guard against re-entrance through the
// event loop, not against threads. Windows wrap everything that can reach the
// network in it, and timers that find it on simply retry, so it sits below
// every window.
#pragma once

#include "xvt/xvt.h"

void WIN_start_critical();
void WIN_end_critical();
void WIN_capture_pointer();
int WIN_in_critical();
int WIN_mouse_captured();
void WIN_set_mouse_captured(int flag);
int WIN_critical_depth();
WINDOW WIN_critical_window();
int WIN_critical_icon();
WINDOW WIN_create_critical_window(WINDOW task_win);
void WIN_destroy_critical_window();
// What the toolkit reports of raw input (mouse presses, scrolling, switching
// to another application).
void WIN_native_hook(XVT_NATIVE_EVENT what, int code);
