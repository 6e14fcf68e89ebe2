// The model-event bus: who hears an event, in what order, and what a
// handler may do to the list while a post walks it.
#include <gtest/gtest.h>

#include <string>

#include "src/base/model_events.h"

namespace {

std::string g_log;
int g_late = -1;

int WantAll(ModelEvent*, void*) { return 1; }
int WantNone(ModelEvent*, void*) { return 0; }

// Each handler writes its name and the event type; some also act on the
// list, by the action word that is their data.
void Act(ModelEvent* ev, void* data) {
  const std::string what = static_cast<const char*>(data);
  g_log += what + ":" + std::to_string(ev->type) + " ";
  if (what == "self-off") MM_NotUnregister(2);
  if (what == "adder" && g_late < 0) g_late = MM_NotRegister(WantAll, Act, const_cast<char*>("late"), "late");
  if (what == "nester" && ev->type == E_ABANDON_SHIP) MM_NotPostSimple(E_SHIP_SUNK);
}

TEST(ModelEvents, OrderNestingAndChangesDuringAPost) {
  MM_NotShutdown();
  MM_NotPostSimple(E_ABANDON_SHIP);  // before the model starts: nobody hears it
  MM_NotInit();
  ASSERT_EQ(MM_NotRegister(WantAll, Act, const_cast<char*>("first"), "1"), 1);
  ASSERT_EQ(MM_NotRegister(WantAll, Act, const_cast<char*>("self-off"), "2"), 2);
  MM_NotRegister(WantNone, Act, const_cast<char*>("never"), "3");
  MM_NotRegister(WantAll, Act, const_cast<char*>("adder"), "4");
  MM_NotRegister(WantAll, Act, const_cast<char*>("nester"), "5");
  MM_NotPostSimple(E_ABANDON_SHIP);
  EXPECT_EQ(g_log, "");  // not active yet
  MM_NotSetActive(true);
  EXPECT_EQ(MM_NotCount(), 5);

  MM_NotPostSimple(E_ABANDON_SHIP);
  // The one that unregistered itself finished its turn; the one registered
  // during the walk was called in the same walk; the nested post reached
  // everyone still registered, in order.
  EXPECT_EQ(g_log,
            "first:12 self-off:12 adder:12 nester:12 first:13 adder:13 nester:13 late:13 late:12 ");
  EXPECT_EQ(MM_NotCount(), 5);

  g_log.clear();
  MM_NotUnregister(g_late);
  MM_NotUnregister(99);  // unknown: nothing happens
  MM_NotPostSimple(E_SHIP_SUNK);
  EXPECT_EQ(g_log, "first:13 adder:13 nester:13 ");
  EXPECT_EQ(MM_NotRegister(nullptr, Act, nullptr, "broken"), -1);
  MM_NotShutdown();
  EXPECT_FALSE(MM_NotActive());
}

}  // namespace
