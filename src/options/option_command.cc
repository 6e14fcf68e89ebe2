// The `option` Tcl command:
//   option ?-default? ?-permanent? ?-session? ?-readonly? name ?value?
// reads without a value and assigns with one. Mistakes in an option file
// (a wrong word count, a readonly site option) are traced and the file goes
// on; only a failed read is a Tcl error, so scripts can catch it.
#include <tcl.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "src/base/trace.h"
#include "src/options/option_internal.h"
#include "src/options/options.h"

namespace {

constexpr size_t kReadBuffer = 2000;

// Option files are read byte for byte (every byte one character), so that
// any value comes back exactly as it was saved; scripts of the program pass
// ordinary strings.
std::string Word(Tcl_Obj* obj, bool bytes) {
  int length = 0;
  if (bytes) {
    unsigned char* b = Tcl_GetByteArrayFromObj(obj, &length);
    return std::string(reinterpret_cast<char*>(b), static_cast<size_t>(length));
  }
  const char* s = Tcl_GetStringFromObj(obj, &length);
  return std::string(s, static_cast<size_t>(length));
}

Tcl_Obj* Result(const std::string& value, bool bytes) {
  if (bytes)
    return Tcl_NewByteArrayObj(reinterpret_cast<const unsigned char*>(value.data()), static_cast<int>(value.size()));
  return Tcl_NewStringObj(value.data(), static_cast<int>(value.size()));
}

int Complain(Tcl_Interp* interp, const char* text) {
  Tcl_SetObjResult(interp, Tcl_NewStringObj(text, -1));
  Trace(kTraceOptions, kTraceCritical, "%s\n", text);
  return TCL_OK;
}

std::string ErrorMessage(int code, const std::string& name) {
  const char* text = Opt_ErrorText(code);
  if (!text) return "option: miscellaneous error";
  char buf[kOptMaxName + 200];
  std::snprintf(buf, sizeof buf, text, name.c_str());
  return buf;
}

int OptionCmd(ClientData data, Tcl_Interp* interp, int objc, Tcl_Obj* const objv[]) {
  bool bytes = data != nullptr;
  if (objc < 2) return Complain(interp, "option : wrong number of arguments");
  int level = kOptPermanent, readonly = 0, i = 1;
  for (; i < objc; ++i) {
    const char* w = Tcl_GetString(objv[i]);
    if (w[0] != '-') break;
    if (!std::strcmp(w, "-default"))
      level = kOptDefault;
    else if (!std::strcmp(w, "-permanent"))
      level = kOptPermanent;
    else if (!std::strcmp(w, "-session"))
      level = kOptSession;
    else if (!std::strcmp(w, "-readonly"))
      readonly = 1;
  }
  if (i >= objc) return Complain(interp, "option : wrong number of arguments - missing option name");
  if (objc - i > 2) return Complain(interp, "option : wrong number of arguments");
  std::string name = OptDecodeNameString(Word(objv[i], bytes).c_str());
  if (i + 1 == objc) {
    auto value = std::make_unique<char[]>(kReadBuffer + 1);
    if (!Opt_LookupString(name.c_str(), value.get(), kReadBuffer, level)) {
      std::string text = ErrorMessage(Opt_GetLastError(), name);
      Tcl_SetObjResult(interp, Tcl_NewStringObj(text.c_str(), -1));
      return TCL_ERROR;
    }
    Tcl_SetObjResult(interp, Result(value.get(), bytes));
    return TCL_OK;
  }
  std::string value = Word(objv[i + 1], bytes);
  if (value.find('\0') != std::string::npos) value.resize(value.find('\0'));
  if (!Opt_AssignString(name.c_str(), value.c_str(), level, readonly)) {
    std::string text = ErrorMessage(Opt_GetLastError(), name);
    return Complain(interp, text.c_str());
  }
  Tcl_ResetResult(interp);
  return TCL_OK;
}

}  // namespace

const char* Opt_ErrorText(int code) {
  switch (code) {
    case kOptErrNone: return "option: no error - so why are you getting this message?";
    case kOptErrNoSuchOption: return "option: option %s does not exist";
    case kOptErrConversion: return "option: conversion error";
    case kOptErrBadPointer: return "option: bad pointer";
    case kOptErrTooLong: return "option: value too large";
    case kOptErrBadLevel: return "option: bad option level";
    case kOptErrPermission: return "option: not able to set option at desired permission level";
    case kOptErrReadonly: return "option: attempt to set readonly option %s";
    case kOptErrOther: return "option: miscellaneous error";
    default: return nullptr;
  }
}

void Opt_RegisterCommand(Tcl_Interp* interp) {
  if (interp) Tcl_CreateObjCommand(interp, "option", OptionCmd, nullptr, nullptr);
}

// The option files' interpreter reads bytes.
void OptRegisterByteCommand(Tcl_Interp* interp) {
  static int marker;
  if (interp) Tcl_CreateObjCommand(interp, "option", OptionCmd, &marker, nullptr);
}
