#pragma once
// The script's value types: how each is written as a "parameter" element, and
// whether a parameter is shown. Shared by the function writer (array elements of
// a slot) and the static-data writer (whole properties), over a ValueSource.

#include <LuaKnxDownloadHandler/Diagnostics.h>
#include <LuaKnxDownloadHandler/LuxHelperBase.h>
#include <LuaKnxDownloadHandler/LuxRecords.h>
#include <LuaKnxDownloadHandler/ValueSource.h>

#include <pugixml.hpp>

#include <cstdint>
#include <functional>
#include <string>

namespace Korvex::luaknxdownloadhandler::detail {

/// "True" or "False", the spelling of every boolean setting and parameter.
const char* BoolText(bool value);

/// Fixed-point text with the low 8 bits of digits as the number of decimals.
std::string FixedPointText(float value, std::int32_t digits);

/// The default of a "Name" parameter whose text cannot be read; differs per caller.
using NameDefault = std::function<std::string(const LuaParameter&)>;

class DocumentBytes;

/// Appends the parameter's "parameter" element by its value type, counted in
/// size first; an unknown type appends nothing.
void WriteParameter(pugi::xml_node& parameters, const LuaParameter& parameter,
                    const ValueSource& source, const NameDefault& nameDefault, DocumentBytes& size,
                    Diagnostics* diagnostics);
void WriteParameter(pugi::xml_node& parameters, const LuaParameter& parameter,
                    const ValueSource& source, const NameDefault& nameDefault, DocumentBytes& size);

/// Whether the parameter is shown: always without ShowIf properties, otherwise
/// the answer of its ShowIf function.
bool IsParameterShown(const LuaParameter& parameter, const ValueSource& source,
                      LuxHelperBase& luxHelper, Diagnostics* diagnostics);
bool IsParameterShown(const LuaParameter& parameter, const ValueSource& source,
                      LuxHelperBase& luxHelper);

}  // namespace Korvex::luaknxdownloadhandler::detail
