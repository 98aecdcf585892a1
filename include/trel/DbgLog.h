#pragma once

#include <trel/trel_api_export.h>

#include <QString>

#include <ostream>
#include <string>

// The label that entry log lines use for a function; this stand-in returns the
// function text unchanged.
TREL_API_EXPORT std::string dbglog_scopedFunction(const char* function, const char* logger);

// Writes the string as UTF-8.
TREL_API_EXPORT std::ostream& operator<<(std::ostream& out, const QString& text);
