#include "LoginStorage/platform/DebugSettings.h"

bool VelLoginDebug::m_coverage = false;
bool VelLoginDebug::m_printColor = false;

const char* VelLoginDebug::sev2StrArr[7] = {"FATAL", "ERROR",  "WARNING", "INFO",
                                            "DEBUG", "DETAIL", "TRACE"};

std::vector<std::string> VelLoginDebug::m_svrColors = {
    "\033[1;35m",  // FATAL: bold magenta
    "\033[1;31m",  // ERROR: bold red
    "\033[33m",    // WARNING: yellow
    "\033[32m",    // INFO: green
    "\033[36m",    // DEBUG: cyan
    "\033[34m",    // DETAIL: blue
    "\033[2m",     // TRACE: dim
};

std::map<std::string, std::string> VelLoginDebug::m_topicsColors;

int activate_tellu_debug_output = 0;
int g_MsgTypeMaxThr = 4;
