// Small text helpers for the configuration the driver is handed.
#pragma once

#include <string>
#include <vector>

namespace lumbra::modbus {

// Blanks trimmed, lower case.
std::string trimmedLower(const std::string &s);
// The non-empty pieces of text between any of `separators`.
std::vector<std::string> splitTokens(const std::string &text, const char *separators);
// Decimal digits only, within [min, max].
bool parseInt(const std::string &v, int min, int max, int *out);

}  // namespace lumbra::modbus
