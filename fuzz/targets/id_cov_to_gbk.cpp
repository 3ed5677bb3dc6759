// The identity card's raw text record to its GBK line: idCovToGBK over a
// 256-byte record (the input, cut or padded with zero bytes) into an output
// of KOLT_IDCOV_TEXT_MAX bytes.
//
// Input: the record.
#include <cstring>

#include "common/fuzz_input.hpp"
#include "idcard/gbk.hpp"
#include "kolt/kolt.h"

using namespace kolt::fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Heap record(256);
    std::memset(record.data(), 0, record.size());
    if (size > 0) std::memcpy(record.data(), data, size < 256 ? size : 256);
    Heap out(KOLT_IDCOV_TEXT_MAX);
    check(idCovToGBK(record.data(), out.chars()) == 0, "idCovToGBK: not 0");
    check(std::memchr(out.data(), 0, out.size()) != nullptr, "idCovToGBK: line without terminator in its room");
    // The record of the module is the line's source, field by field.
    const std::string line = kolt::idcard::id_cov_to_gbk(std::span<const uint8_t>(record.data(), 256));
    check(line == out.chars(), "idCovToGBK: line differs from the C++ result");
    check(line.size() <= kolt::idcard::kIdCovTextMax, "line longer than documented");
    return 0;
}
