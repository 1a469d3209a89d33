// fuzz_csv.cpp - qvn-kit's box-track reader on arbitrary text: rows it
// accepts have increasing frames within the gap limit and finite values, and
// survive the writer and the reader again unchanged.
#include "common.hpp"
#include "csv.hpp"
#include "fuzz_common.hpp"

#include <cmath>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    std::vector<qvntool::BoxRow> rows;
    try {
        rows = qvntool::ParseBoxCsv("fuzz.csv", text);
    } catch (const qvntool::ToolError& e) {
        if (e.code() != qvntool::kExitInput) qvnfuzz::Fail("CSV refusal with another exit code");
        if (std::string(e.what()).size() > 400) qvnfuzz::Fail("CSV message too long");
        return 0;
    }
    for (size_t i = 0; i < rows.size(); ++i) {
        const qvntool::BoxRow& r = rows[i];
        if (r.frame < 0) qvnfuzz::Fail("negative frame");
        if (i > 0 && (r.frame <= rows[i - 1].frame ||
                      r.frame - rows[i - 1].frame > qvntool::kMaxFrameGap)) {
            qvnfuzz::Fail("frames out of order or too far apart");
        }
        if (!std::isfinite(r.x) || !std::isfinite(r.y) || !std::isfinite(r.w) ||
            !std::isfinite(r.h)) {
            qvnfuzz::Fail("non-finite value accepted");
        }
    }
    std::vector<qvntool::BoxRow> again =
        qvntool::ParseBoxCsv("again.csv", qvntool::BoxCsvText(rows));
    if (again.size() != rows.size()) qvnfuzz::Fail("round trip changed the row count");
    for (size_t i = 0; i < rows.size(); ++i) {
        const qvntool::BoxRow &a = rows[i], &b = again[i];
        if (a.frame != b.frame || a.x != b.x || a.y != b.y || a.w != b.w || a.h != b.h) {
            qvnfuzz::Fail("round trip changed a row");
        }
    }
    return 0;
}
