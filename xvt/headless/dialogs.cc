// Dialogs and questions. Nothing waits for a user: a modal dialog is driven
// by the function a test queued for it, a question takes the answer queued
// for it, and whatever comes unasked for goes to the unexpected handler.
// Every post is recorded for the test to read.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "xvt/common/strfmt.h"
#include "xvt/headless/headless_internal.h"

namespace xvthl {

void Record(const std::string& kind, const std::string& text, std::vector<std::string> buttons, int rid) {
  XvtPost p;
  p.kind = kind;
  p.text = text;
  p.buttons = std::move(buttons);
  p.rid = rid;
  S().posts.push_back(std::move(p));
}

}  // namespace xvthl

using namespace xvthl;

namespace {

void Unexpected(const XvtPost& post) {
  if (S().unexpected) {
    S().unexpected(post);
    return;
  }
  std::fprintf(stderr, "xvt headless: unexpected %s: %s\n", post.kind.c_str(), post.text.c_str());
  std::abort();
}

xvt_object* CreateDialog(const WIN_DEF* defs, EVENT_HANDLER eh, intptr_t app_data) {
  if (!defs || (defs->type != W_MODAL && defs->type != W_MODELESS && defs->type != W_DOC && defs->type != W_PLAIN))
    return nullptr;
  xvt_object* dlg = NewObject(defs->type, R().screen, &defs->rct, defs->title);
  dlg->eh = eh;
  dlg->data = app_data;
  dlg->flags = defs->flags;
  for (const WIN_DEF* d = defs + 1; d->type != W_NONE; ++d) {
    xvt_object* c = NewObject(d->type, dlg, &d->rct, d->title);
    c->id = d->id;
    c->flags = d->flags;
    c->enabled = !(d->flags & CTL_FLAG_DISABLED);
    c->visible = !(d->flags & CTL_FLAG_INVISIBLE);
  }
  EVENT ev = MakeEvent(E_CREATE);
  Send(dlg, &ev);
  return dlg;
}

// Runs the function queued for the dialog; the dialog must be gone after it.
void RunModal(xvt_object* dlg, int rid) {
  auto& s = S();
  if (!Live(dlg)) return;
  if (!s.answers.empty() && s.answers.front().kind == Answer::kDialog &&
      (s.answers.front().rid == 0 || s.answers.front().rid == rid)) {
    Answer a = std::move(s.answers.front());
    s.answers.pop_front();
    if (a.fn) a.fn(dlg);
    if (Live(dlg)) {
      XvtPost p{"dialog left open", dlg->title, {}, rid};
      Unexpected(p);
      DestroyTree(dlg);
    }
    return;
  }
  XvtPost p{"dialog", dlg->title, {}, rid};
  Unexpected(p);
  DestroyTree(dlg);
}

WINDOW ShowDialog(const WIN_DEF* defs, int rid, EVENT_HANDLER eh, intptr_t app_data) {
  Record("dialog", defs->title ? defs->title : "", {}, rid);
  xvt_object* dlg = CreateDialog(defs, eh, app_data);
  if (!dlg) return NULL_WIN;
  if (defs->type == W_MODAL) {
    WINDOW shown = dlg;
    RunModal(dlg, rid);
    return shown;
  }
  return dlg;
}

bool TakeText(const char* kind, const char* prompt, char* buf, size_t size) {
  Record(kind, prompt ? prompt : "");
  auto& s = S();
  if (s.answers.empty() || s.answers.front().kind != Answer::kText) {
    Unexpected(s.posts.back());
    return false;
  }
  Answer a = std::move(s.answers.front());
  s.answers.pop_front();
  if (!a.has_text) return false;
  if (buf && size) std::snprintf(buf, size, "%s", a.text.c_str());
  return true;
}

}  // namespace

WINDOW xvt_dlg_create_def(const WIN_DEF* defs, EVENT_MASK, EVENT_HANDLER eh, intptr_t app_data) {
  if (!R().task || !defs) return NULL_WIN;
  return ShowDialog(defs, 0, eh, app_data);
}

WINDOW xvt_dlg_create_res(WIN_TYPE type, int rid, EVENT_MASK, EVENT_HANDLER eh, intptr_t app_data) {
  const WIN_DEF* defs = xvt_res_get_dialog(rid);
  if (!R().task || !defs) return NULL_WIN;
  std::vector<WIN_DEF> copy;
  for (const WIN_DEF* d = defs; d->type != W_NONE; ++d) copy.push_back(*d);
  copy.push_back(WIN_DEF{W_NONE, {}, nullptr, 0, 0});
  copy[0].type = type;
  return ShowDialog(copy.data(), rid, eh, app_data);
}

ASK_RESPONSE xvt_dm_post_ask(const char* b1, const char* b2, const char* b3, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string text = StringPrintfV(fmt, ap);
  va_end(ap);
  std::vector<std::string> buttons;
  for (const char* b : {b1, b2, b3})
    if (b) buttons.push_back(b);
  Record("ask", text, buttons);
  auto& s = S();
  if (!s.answers.empty() && s.answers.front().kind == Answer::kAsk) {
    ASK_RESPONSE r = s.answers.front().response;
    s.answers.pop_front();
    return r;
  }
  Unexpected(s.posts.back());
  return b3 ? RESP_3 : (b2 ? RESP_2 : RESP_DEFAULT);
}

#define POST_INFO(kind)                        \
  va_list ap;                                  \
  va_start(ap, fmt);                           \
  std::string text = StringPrintfV(fmt, ap);   \
  va_end(ap);                                  \
  Record(kind, text);

void xvt_dm_post_error(const char* fmt, ...) { POST_INFO("error") }
void xvt_dm_post_note(const char* fmt, ...) { POST_INFO("note") }
void xvt_dm_post_message(const char* fmt, ...) { POST_INFO("message") }

void xvt_dm_post_fatal_exit(const char* fmt, ...) {
  POST_INFO("fatal")
  if (S().fatal) S().fatal(text);
  std::fprintf(stderr, "%s\n", text.c_str());
  std::exit(1);
}

bool xvt_dm_post_string_prompt(const char* prompt, char* buf, size_t size) {
  return TakeText("prompt", prompt, buf, size);
}
bool xvt_dm_post_file_open(const char* prompt, char* path, size_t size) {
  return TakeText("file_open", prompt, path, size);
}
bool xvt_dm_post_file_save(const char* prompt, char* path, size_t size) {
  return TakeText("file_save", prompt, path, size);
}

bool xvt_dm_post_font_sel(WINDOW, XVT_FNTID* font) {
  char chosen[200] = "";
  if (!TakeText("font", "", chosen, sizeof chosen) || !font) return false;
  char family[100] = "";
  int size = 12;
  unsigned style = 0;
  if (std::sscanf(chosen, "%99s %d %u", family, &size, &style) < 1) return false;
  xvt_font_destroy(*font);
  *font = xvt_font_create(family, size, style);
  return true;
}

// ---------------------------------------------------------------------------
// Test hooks

void xvt_test_push_answer(ASK_RESPONSE response) {
  Answer a;
  a.kind = Answer::kAsk;
  a.response = response;
  S().answers.push_back(std::move(a));
}

void xvt_test_push_dialog(int rid, std::function<void(WINDOW)> fn) {
  Answer a;
  a.kind = Answer::kDialog;
  a.rid = rid;
  a.fn = std::move(fn);
  S().answers.push_back(std::move(a));
}

void xvt_test_push_text(const char* text) {
  Answer a;
  a.kind = Answer::kText;
  a.has_text = text != nullptr;
  if (text) a.text = text;
  S().answers.push_back(std::move(a));
}

const std::vector<XvtPost>& xvt_test_posts(void) { return S().posts; }
void xvt_test_clear_posts(void) { S().posts.clear(); }
void xvt_test_set_unexpected_handler(std::function<void(const XvtPost&)> handler) {
  S().unexpected = std::move(handler);
}
void xvt_test_set_fatal_handler(std::function<void(const std::string&)> handler) { S().fatal = std::move(handler); }
