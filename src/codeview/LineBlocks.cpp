#include "codeview/LineBlocks.h"

#include "codeview/CodeViewFormat.h"
#include "platform/ByteWriter.h"

#include <algorithm>

namespace quillet {

namespace {

constexpr uint32_t LineWord(uint32_t line) {
    return (line & cv::kLineNumberMask) | cv::kLineIsStatement;
}

// Collects the pairs of one run and writes them as one block when the run ends.
class CRunWriter {
public:
    explicit CRunWriter(std::vector<uint8_t> &out) : m_Out(out) {}

    void Start(uint32_t checksumOffset) {
        Close();
        m_nChecksumOffset = checksumOffset;
        m_bHasLine = false;
    }
    void Add(uint32_t offset, uint32_t line) {
        if (m_bHasLine && line == m_nPreviousLine)
            return;
        m_bHasLine = true;
        m_nPreviousLine = line;
        m_Pairs.push_back(offset);
        m_Pairs.push_back(LineWord(line));
    }
    // A run without pairs writes nothing.
    void Close() {
        if (m_Pairs.empty())
            return;
        const uint32_t count = uint32_t(m_Pairs.size() / 2);
        const uint32_t length = cv::kFileBlockHeaderSize + cv::kLinePairSize * count;
        ByteWriter w(length);
        w.U32(m_nChecksumOffset);
        w.U32(count);
        w.U32(length);
        for (uint32_t word : m_Pairs)
            w.U32(word);
        if (w.Finish())
            m_Out.insert(m_Out.end(), w.Data(), w.Data() + w.Size());
        m_Pairs.clear();
    }

private:
    std::vector<uint8_t> &m_Out;
    std::vector<uint32_t> m_Pairs; // offset, line word, offset, line word, ...
    uint32_t m_nChecksumOffset = 0;
    uint32_t m_nPreviousLine = 0;
    bool m_bHasLine = false;
};

} // namespace

std::vector<CvLineSubsection> PlanLineSubsections(std::vector<CvLinePoint> &points,
                                                  std::vector<CvCodeRange> procedures,
                                                  uint64_t sectionSize) {
    std::stable_sort(points.begin(), points.end(), [](const CvLinePoint &a, const CvLinePoint &b) {
        return a.address < b.address;
    });
    procedures.erase(std::remove_if(procedures.begin(), procedures.end(),
                                    [](const CvCodeRange &r) { return r.end <= r.start; }),
                     procedures.end());
    std::sort(procedures.begin(), procedures.end(),
              [](const CvCodeRange &a, const CvCodeRange &b) { return a.start < b.start; });
    for (size_t i = 0; i + 1 < procedures.size(); ++i)
        procedures[i].end = std::min(procedures[i].end, procedures[i + 1].start);

    std::vector<CvLineSubsection> out;
    size_t procedure = 0; // the first procedure that does not end at or before the current point
    size_t i = 0;
    while (i < points.size()) {
        const uint64_t address = points[i].address;
        while (procedure < procedures.size() && procedures[procedure].end <= address)
            ++procedure;
        uint64_t start = address, end = 0;
        size_t last = i, opens = kNoProcedure;
        if (procedure < procedures.size()) {
            // Inside the procedure, or in the stretch that ends where it begins.
            const bool inside = procedures[procedure].start <= address;
            if (inside)
                opens = procedures[procedure].procedure;
            start = inside ? procedures[procedure].start : address;
            end = inside ? procedures[procedure].end : procedures[procedure].start;
            while (last < points.size() && points[last].address < end)
                ++last;
        } else {
            // The last stretch runs to the section's end and takes every remaining point, those
            // past the end included.
            const uint64_t highest = points.back().address;
            end = std::max(sectionSize, highest < UINT64_MAX ? highest + 1 : highest);
            last = points.size();
        }
        // One subsection per run of one file, each up to where the next begins.
        for (size_t run = i; run < last;) {
            size_t next = run + 1;
            while (next < last && points[next].checksumOffset == points[run].checksumOffset)
                ++next;
            const uint64_t runStart = run == i ? start : points[run].address;
            const uint64_t runEnd = next == last ? end : points[next].address;
            out.push_back({runStart, uint32_t(runEnd - runStart), run, next - run,
                           run == i ? opens : kNoProcedure});
            run = next;
        }
        i = last;
    }
    return out;
}

std::vector<uint8_t> EncodeLineSubsection(const std::vector<CvLinePoint> &points,
                                          const CvLineSubsection &subsection,
                                          uint32_t offsetField) {
    std::vector<uint8_t> out;
    ByteWriter header(cv::kLineHeaderSize);
    header.U32(offsetField); // relocated
    header.U16(0);           // segment, relocated
    header.U16(0);           // flags: no columns
    header.U32(subsection.codeSize);
    if (!header.Finish())
        return out;
    out.assign(header.Data(), header.Data() + header.Size());

    CRunWriter run(out);
    bool inRun = false;
    uint32_t file = 0;
    for (size_t k = subsection.first; k < subsection.first + subsection.count; ++k) {
        const CvLinePoint &point = points[k];
        if (!inRun || point.checksumOffset != file) {
            run.Start(point.checksumOffset);
            file = point.checksumOffset;
            inRun = true;
        }
        run.Add(uint32_t(point.address - subsection.start), point.line);
    }
    run.Close();
    return out;
}

} // namespace quillet
