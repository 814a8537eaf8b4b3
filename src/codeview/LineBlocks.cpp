#include "codeview/LineBlocks.h"

#include "codeview/CodeViewFormat.h"
#include "platform/ByteWriter.h"

namespace quillet {

std::vector<uint8_t> EncodeLineHeader(uint32_t codeSize) {
    ByteWriter w(cv::kLineHeaderSize);
    w.U32(0); // code offset, relocated against the section
    w.U16(0); // segment, relocated against the section
    w.U16(0); // flags: no columns
    w.U32(codeSize);
    w.Finish();
    return std::vector<uint8_t>(w.Data(), w.Data() + w.Size());
}

namespace {

// Collects the pairs of one run and writes them as one block when the run ends.
class CRunWriter {
public:
    explicit CRunWriter(std::vector<uint8_t> &out) : m_Out(out) {}

    void Start(uint32_t checksumOffset) {
        Close();
        m_nChecksumOffset = checksumOffset;
        m_bHasLine = false;
    }
    void Add(uint64_t address, uint32_t line) {
        if (m_bHasLine && line == m_nPreviousLine)
            return;
        m_bHasLine = true;
        m_nPreviousLine = line;
        m_Pairs.push_back(uint32_t(address));
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
        w.Finish();
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

void EncodeFileBlocks(const std::vector<CvLinePoint> &sorted,
                      const std::function<CvFileInfo(const void *file)> &lookup,
                      std::vector<uint8_t> &out) {
    CRunWriter run(out);
    const void *currentFile = nullptr;
    std::u16string_view currentName;
    bool inRun = false;
    for (const CvLinePoint &point : sorted) {
        if (!inRun || point.file != currentFile) {
            const CvFileInfo info = lookup(point.file);
            if (!inRun || info.name != currentName) {
                run.Start(info.checksumOffset);
                currentName = info.name;
                inRun = true;
            }
            currentFile = point.file;
        }
        run.Add(point.address, point.line);
    }
    run.Close();
}

} // namespace quillet
