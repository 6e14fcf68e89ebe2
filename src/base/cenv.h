// The configuration environment: where the options live, who the user is
// and whether the program starts connected. Filled from velmar.ini, then
// MAILHOST, then the command line; plus the table of named configurations.
#pragma once

#include "xvt/xvt.h"

constexpr int kMaxConfigs = 20;

// Connection modes.
constexpr int kConnDisconnected = 0;
constexpr int kConnConnected = 1;
constexpr int kConnPrompt = 2;

// Flag bits of the environment.
constexpr unsigned kCenvManditoryRemote = 1u << 0;
constexpr unsigned kCenvDefaultRemote = 1u << 1;
constexpr unsigned kCenvSuppressDesktopReload = 1u << 2;
constexpr unsigned kCenvSuppressBanner = 1u << 3;
constexpr unsigned kCenvSessionManagement = 1u << 4;
constexpr unsigned kCenvOnDemand = 1u << 5;

// Flag bits of a configuration record.
constexpr unsigned kConfigListed = 1u << 1;
constexpr unsigned kConfigOnlineDefault = 1u << 3;
constexpr unsigned kConfigOfflineDefault = 1u << 4;

int CENV_Init(int argc, char** argv);
void CENV_Shutdown();
void CENV_LoadInitFile();
void CENV_LoadOSEnvironment();
// Parses the command line ("f:m:p:r:n:u:w:bsc:h:"); CENV_Init calls it.
void CENV_ParseCommandLine(int argc, char** argv);
// Splits line in place at any of delimiters (runs collapse), stopping at max
// tokens or at a token that begins with "#". Returns the count.
int CENV_TokenizeString(char* line, int max, const char* delimiters, char** tokens);
// Parses init file text as CENV_LoadInitFile does for a file.
void CENV_ParseInitText(const char* text, size_t length);

void CENV_SetRemoteHost(const char* host);
const char* CENV_GetRemoteHost();
void CENV_SetRemotePort(long port);
long CENV_GetRemotePort();
void CENV_SetConfigFile(const char* file);
const char* CENV_GetConfigFile();
void CENV_SetUserid(const char* userid);
const char* CENV_GetUserid();
void CENV_SetPassword(const char* password);
const char* CENV_GetPassword();
void CENV_SetManditoryRemote(int flag);
int CENV_GetManditoryRemote();
void CENV_SetDefaultRemote(int flag);
int CENV_GetDefaultRemote();
void CENV_SetSuppressDesktopReload(int flag);
int CENV_GetSuppressDesktopReload();
void CENV_SetSuppressBannerDisplay(int flag);
int CENV_GetSuppressBannerDisplay();
void CENV_SetConnectionMode(long mode);
long CENV_GetConnectionMode();
void CENV_SetNewConnectionMode(long mode);
long CENV_GetNewConnectionMode();
void CENV_SetSessionManagrment(int flag);
int CENV_GetSessionManagement();
void CENV_SetOnDemand(int flag);
int CENV_GetOnDemand();

// A string list of configuration names (data: the index), or null.
SLIST CENV_GetConfigList(const char* mode, const char* type, const char* section);
int CENV_GetDefaultConfigIndex(const char* mode);
const char* CENV_GetConfigName(int index);
int CENV_FindConfigByName(const char* name);
int CENV_NewConfig();
void CENV_SetCurrentConfigIndex(int index);
int CENV_GetCurrentConfigIndex();
void CENV_SetNewConfig(int index);

void CENV_SetConfigName(int index, const char* name);
void CENV_SetConfigSection(int index, const char* section);
void CENV_SetConfigHost(int index, const char* host);
void CENV_SetConfigPort(int index, long port);
void CENV_SetConfigType(int index, const char* type);
void CENV_SetConfigFilename(int index, const char* file);
void CENV_SetConfigMode(int index, const char* mode);
void CENV_SetConfigOnlineDefault(int index, int flag);
void CENV_SetConfigOfflineDefault(int index, int flag);
const char* CENV_GetConfigSection(int index);
const char* CENV_GetConfigFilename(int index);
const char* CENV_GetConfigHost(int index);
long CENV_GetConfigPort(int index);
const char* CENV_GetConfigType(int index);
const char* CENV_GetConfigMode(int index);
int CENV_GetConfigOnlineDefault(int index);
int CENV_GetConfigOfflineDefault(int index);
