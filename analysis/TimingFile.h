// The timing file of a session: beside its .sid (the same name with
// ".timing"), one JSON object a line, written as the session runs:
//   {"carrier":"on","us":7299875}          an edge of the carrier
//   {"finding":{...}}                      a finding (TimingFinding::ToJson)
// The .sid itself is left as it was: older readers never see these records.
// Opening the .sid gives back the carrier's edges (so that the session is
// judged again as it was live) and the findings saved with it.
#pragma once

#include "analysis/TimingChecker.h"

#include <cstdio>
#include <string>
#include <vector>

namespace analysis {

class TimingFile {
public:
    TimingFile() = default;
    ~TimingFile() { Close(); }
    TimingFile(const TimingFile&) = delete;
    TimingFile& operator=(const TimingFile&) = delete;

    // The timing file that belongs beside a .sid: its path with ".sid" (or
    // whatever follows the last dot of the name) replaced by ".timing".
    static std::string PathBeside(const std::string& sidPath);

    // A new file (an existing one is replaced); false if it cannot be made.
    bool Create(const std::string& path);
    void Close();
    bool IsOpen() const { return m_file != nullptr; }
    const std::string& Path() const { return m_path; }

    // Each line is written whole, in one write.
    void WriteEdge(const CarrierEdge& edge);
    void WriteFinding(const TimingFinding& finding);

    // Reads a timing file: the edges and findings it holds, in file order.
    // A damaged line is skipped. False if the file cannot be read.
    static bool Read(const std::string& path, std::vector<CarrierEdge>& edges, std::vector<TimingFinding>& findings);

private:
    void Line(const std::string& text);
    std::FILE* m_file = nullptr;
    std::string m_path;
};

}  // namespace analysis
