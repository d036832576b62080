// The Windows package as a reader of it would check it, since no INF verifier or MSBuild runs
// here: the INF's sections and keys, that every file it copies is one the project builds, that
// its security descriptor parses, and that the project compiles exactly the driver's sources.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace mvgps::test
{
namespace
{

namespace fs = std::filesystem;
const fs::path kRoot = MVGPS_SOURCE_DIR;

std::string read_file(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string trim(const std::string& s)
{
    const auto first = s.find_first_not_of(" \t\r");
    if (first == std::string::npos) {
        return "";
    }
    return s.substr(first, s.find_last_not_of(" \t\r") - first + 1);
}

std::string lower(std::string s)
{
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
    return s;
}

std::vector<std::string> split(const std::string& s, char sep)
{
    std::vector<std::string> fields;
    std::stringstream in(s);
    for (std::string field; std::getline(in, field, sep);) {
        fields.push_back(trim(field));
    }
    return fields;
}

// An INF: section name (case-folded) -> its lines, comments removed. A line is either
// "key = value" or a bare entry (a file name, an AddReg line).
struct Line {
    std::string key;
    std::string value;
};

class Inf
{
  public:
    explicit Inf(const std::string& text)
    {
        std::stringstream in(text);
        std::vector<Line>* section = nullptr;
        for (std::string raw; std::getline(in, raw);) {
            const std::string line = trim(strip_comment(raw));
            if (line.empty()) {
                continue;
            }
            if (line.front() == '[' && line.back() == ']') {
                section = &sections_[lower(line.substr(1, line.size() - 2))];
                continue;
            }
            if (section == nullptr) {
                orphans_.push_back(line);
                continue;
            }
            const auto eq = line.find('=');
            const bool keyed = eq != std::string::npos && line.find('"') > eq;
            section->push_back(keyed ? Line{trim(line.substr(0, eq)), trim(line.substr(eq + 1))}
                                     : Line{"", line});
        }
    }

    bool has(const std::string& section) const { return sections_.count(lower(section)) != 0; }
    const std::vector<Line>& lines(const std::string& section) const
    {
        static const std::vector<Line> none;
        const auto it = sections_.find(lower(section));
        return it == sections_.end() ? none : it->second;
    }
    std::string value(const std::string& section, const std::string& key) const
    {
        for (const Line& line : lines(section)) {
            if (lower(line.key) == lower(key)) {
                return line.value;
            }
        }
        return "";
    }
    std::vector<std::string> values(const std::string& key) const
    {
        std::vector<std::string> found;
        for (const auto& [name, section] : sections_) {
            for (const Line& line : section) {
                if (lower(line.key) == lower(key)) {
                    found.push_back(line.value);
                }
            }
        }
        return found;
    }
    const std::vector<std::string>& orphans() const { return orphans_; }
    const std::map<std::string, std::vector<Line>>& sections() const { return sections_; }

  private:
    static std::string strip_comment(const std::string& line)
    {
        bool quoted = false;
        for (std::size_t i = 0; i < line.size(); ++i) {
            if (line[i] == '"') {
                quoted = !quoted;
            } else if (line[i] == ';' && !quoted) {
                return line.substr(0, i);
            }
        }
        return line;
    }

    std::map<std::string, std::vector<Line>> sections_;
    std::vector<std::string> orphans_;
};

// Parses a DACL-only security descriptor, "D:" flags then "(type;flags;rights;;;sid)" aces,
// and returns the trustee of each ace with its rights; an empty list when it does not parse.
std::vector<std::pair<std::string, std::string>> parse_sddl(const std::string& sddl)
{
    static const std::regex whole(R"(D:(P|AI|AR)*((\([^()]*\))+))");
    static const std::regex ace(R"(\((A|D);[A-Z]*;((?:GA|GR|GW|GX|FA|FR|FW|FX|0x[0-9A-Fa-f]+)+);;;)"
                                R"((SY|BA|IU|WD|AU|LS|NS|BU|S-1(?:-\d+)+)\))");
    std::smatch match;
    if (!std::regex_match(sddl, match, whole)) {
        return {};
    }
    std::vector<std::pair<std::string, std::string>> aces;
    const std::string list = match[2];
    static const std::regex each(R"(\([^()]*\))");
    for (auto it = std::sregex_iterator(list.begin(), list.end(), each);
         it != std::sregex_iterator(); ++it) {
        const std::string one = it->str();
        std::smatch parts;
        if (!std::regex_match(one, parts, ace)) {
            return {};
        }
        aces.emplace_back(parts[3], parts[2]);
    }
    return aces;
}

// The project file's items and properties, as the tags appear in it.
std::vector<std::string> tag_values(const std::string& xml, const std::string& tag)
{
    std::vector<std::string> found;
    const std::regex pattern("<" + tag + ">([^<]*)</" + tag + ">");
    for (auto it = std::sregex_iterator(xml.begin(), xml.end(), pattern);
         it != std::sregex_iterator(); ++it) {
        found.push_back((*it)[1]);
    }
    return found;
}

std::set<std::string> included(const std::string& xml, const std::string& item)
{
    std::set<std::string> paths;
    const std::regex pattern("<" + item + R"re( Include="\.\.\\([^"]+)")re");
    for (auto it = std::sregex_iterator(xml.begin(), xml.end(), pattern);
         it != std::sregex_iterator(); ++it) {
        std::string path = (*it)[1];
        std::replace(path.begin(), path.end(), '\\', '/');
        paths.insert(path);
    }
    return paths;
}

std::set<std::string> driver_files(const std::string& extension)
{
    std::set<std::string> paths;
    for (const char* dir : {"os", "link", "uart", "read", "control", "driver", "child"}) {
        if (!fs::exists(kRoot / dir)) {
            continue;
        }
        for (const auto& entry : fs::recursive_directory_iterator(kRoot / dir)) {
            if (entry.path().extension() == extension) {
                paths.insert(fs::relative(entry.path(), kRoot).generic_string());
            }
        }
    }
    return paths;
}

class WindowsPackage : public ::testing::Test
{
  protected:
    Inf inf{read_file(kRoot / "windows/mvgps.inf")};
    std::string project = read_file(kRoot / "windows/mvgps.vcxproj");
    std::string target = tag_values(project, "TargetName").at(0);

    // The install section that the models section binds the hardware id to.
    std::string install_section() const
    {
        const std::vector<std::string> manufacturer =
            split(inf.lines("Manufacturer").at(0).value, ',');
        const std::string models = manufacturer.at(0) + "." + manufacturer.at(1);
        return split(inf.lines(models).at(0).value, ',').at(0);
    }
};

TEST_F(WindowsPackage, InfHasTheSectionsAndKeysAnInstallNeeds)
{
    ASSERT_TRUE(inf.orphans().empty()) << inf.orphans().front();
    const std::string install = install_section();
    const std::string service = split(inf.value(install + ".NT.Services", "AddService"), ',').at(2);
    const std::string kmdf = split(inf.value(install + ".NT.Wdf", "KmdfService"), ',').at(1);
    const struct {
        std::string section, key, expected; // expected "" = present and non-empty
    } cases[] = {
        {"Version", "Class", ""},
        {"Version", "ClassGuid", ""},
        {"Version", "Provider", ""},
        {"Version", "DriverVer", ""},
        {"Version", "CatalogFile", target + ".cat"},
        {install + ".NT", "CopyFiles", ""},
        {install + ".NT.HW", "AddReg", ""},
        {service, "ServiceBinary", "%13%\\" + target + ".sys"},
        {service, "AddReg", ""},
        {kmdf, "KmdfLibraryVersion",
         tag_values(project, "KMDF_VERSION_MAJOR").at(0) + "." +
             tag_values(project, "KMDF_VERSION_MINOR").at(0)},
    };
    for (const auto& c : cases) {
        const std::string value = inf.value(c.section, c.key);
        EXPECT_TRUE(c.expected.empty() ? !value.empty() : value == c.expected)
            << "[" << c.section << "] " << c.key << " = '" << value << "'";
    }
    EXPECT_EQ(split(inf.value(install + ".NT.Services", "AddService"), ',').at(1), "0x00000002")
        << "the service is the device's function driver";
}

TEST_F(WindowsPackage, EverySectionAndStringTheInfNamesExists)
{
    for (const char* directive : {"CopyFiles", "AddReg"}) {
        for (const std::string& list : inf.values(directive)) {
            for (const std::string& section : split(list, ',')) {
                EXPECT_TRUE(inf.has(section)) << directive << " names missing [" << section << "]";
            }
        }
    }
    const std::regex token("%([A-Za-z][A-Za-z0-9_.]*)%");
    for (const auto& [name, lines] : inf.sections()) {
        for (const Line& line : lines) {
            const std::string text = line.key + "=" + line.value;
            for (auto it = std::sregex_iterator(text.begin(), text.end(), token);
                 it != std::sregex_iterator(); ++it) {
                EXPECT_FALSE(inf.value("Strings", (*it)[1]).empty())
                    << "[" << name << "] uses undefined %" << (*it)[1] << "%";
            }
        }
    }
}

TEST_F(WindowsPackage, EveryFileTheInfCopiesIsBuiltByTheProject)
{
    std::set<std::string> copied;
    for (const std::string& list : inf.values("CopyFiles")) {
        for (const std::string& section : split(list, ',')) {
            for (const Line& line : inf.lines(section)) {
                copied.insert(line.value);
            }
        }
    }
    EXPECT_EQ(copied, std::set<std::string>{target + ".sys"});
    for (const std::string& file : copied) {
        EXPECT_FALSE(inf.value("SourceDisksFiles", file).empty()) << file;
    }
    EXPECT_EQ(included(project, "Inf"), std::set<std::string>{})
        << "the INF sits beside the project";
    EXPECT_NE(project.find("<Inf Include=\"mvgps.inf\" />"), std::string::npos);
}

TEST_F(WindowsPackage, OnlySystemAdministratorsAndTheInteractiveUserOpenTheDevice)
{
    const std::regex security(R"re(HKR,,Security,,"([^"]*)")re");
    std::smatch match;
    std::string sddl;
    for (const Line& line : inf.lines(inf.value(install_section() + ".NT.HW", "AddReg"))) {
        if (std::regex_match(line.value, match, security)) {
            sddl = match[1];
        }
    }
    const auto aces = parse_sddl(sddl);
    ASSERT_FALSE(aces.empty()) << "security descriptor does not parse: '" << sddl << "'";
    std::set<std::string> trustees;
    for (const auto& [sid, rights] : aces) {
        trustees.insert(sid);
    }
    EXPECT_EQ(trustees, (std::set<std::string>{"SY", "BA", "IU"}));
    EXPECT_TRUE(parse_sddl("D:P(A;;GA;;;XX)").empty()) << "the parser must refuse unknown trustees";
}

TEST_F(WindowsPackage, BaudRateIndexIsADwordUnderParameters)
{
    const std::string service =
        split(inf.value(install_section() + ".NT.Services", "AddService"), ',').at(2);
    std::vector<std::string> entry;
    for (const Line& line : inf.lines(inf.value(service, "AddReg"))) {
        const std::vector<std::string> fields = split(line.value, ',');
        if (fields.size() == 5 && fields[1] == "Parameters" && fields[2] == "BaudRateIndex") {
            entry = fields;
        }
    }
    ASSERT_EQ(entry.size(), 5u) << "no HKR,Parameters,BaudRateIndex line";
    EXPECT_EQ(std::stoul(entry[3], nullptr, 16) & 0xFFFF0001u, 0x00010001u) << "REG_DWORD";
    EXPECT_GT(std::stoul(entry[4]), 0u);
}

TEST_F(WindowsPackage, ProjectBuildsExactlyTheDriverSources)
{
    EXPECT_EQ(included(project, "ClCompile"), driver_files(".cpp"));
    EXPECT_EQ(included(project, "ClInclude"), driver_files(".h"));
    for (const std::string& dirs : tag_values(project, "AdditionalIncludeDirectories")) {
        EXPECT_EQ(dirs.find("host"), std::string::npos)
            << "the WDK's own headers, never the host's";
    }
}

} // namespace
} // namespace mvgps::test
