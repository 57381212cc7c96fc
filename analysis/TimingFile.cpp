#include "analysis/TimingFile.h"

#include <fstream>
#include <memory>

namespace analysis {

std::string TimingFile::PathBeside(const std::string& sidPath)
{
    const size_t slash = sidPath.find_last_of('/');
    const size_t dot = sidPath.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash))
        return sidPath + ".timing";
    return sidPath.substr(0, dot) + ".timing";
}

bool TimingFile::Create(const std::string& path)
{
    Close();
    m_file = std::fopen(path.c_str(), "wb");
    if (!m_file)
        return false;
    // Unbuffered: a line in one write reaches the file whole.
    std::setvbuf(m_file, nullptr, _IONBF, 0);
    m_path = path;
    return true;
}

void TimingFile::Close()
{
    if (m_file)
        std::fclose(m_file);
    m_file = nullptr;
}

void TimingFile::Line(const std::string& text)
{
    if (!m_file)
        return;
    std::string line = text;
    line.push_back('\n');
    std::fwrite(line.data(), 1, line.size(), m_file);
}

void TimingFile::WriteEdge(const CarrierEdge& edge)
{
    Line(std::string("{\"carrier\":\"") + (edge.on ? "on" : "off") + "\",\"us\":" + std::to_string(edge.us) + "}");
}

void TimingFile::WriteFinding(const TimingFinding& finding)
{
    Json::Value v(Json::objectValue);
    v["finding"] = finding.ToJson();
    Json::StreamWriterBuilder b;
    b["indentation"] = "";
    Line(Json::writeString(b, v));
}

bool TimingFile::Read(const std::string& path, std::vector<CarrierEdge>& edges, std::vector<TimingFinding>& findings)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    Json::CharReaderBuilder b;
    std::unique_ptr<Json::CharReader> reader(b.newCharReader());
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line.size() > 65536)
            continue;
        Json::Value v;
        std::string errors;
        try {
            if (!reader->parse(line.data(), line.data() + line.size(), &v, &errors) || !v.isObject())
                continue;
        } catch (const std::exception&) {
            continue;  // too deep a nesting
        }
        if (v["carrier"].isString() && v["us"].isIntegral()) {
            CarrierEdge e;
            e.on = v["carrier"].asString() == "on";
            e.us = v["us"].asInt64();
            edges.push_back(e);
        } else if (v["finding"].isObject()) {
            TimingFinding f;
            if (TimingFinding::FromJson(v["finding"], f))
                findings.push_back(std::move(f));
        }
    }
    return true;
}

}  // namespace analysis
