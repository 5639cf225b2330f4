#include "sdk/csv_table.h"

#include <csv.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace csv {

namespace {

const std::string kEmptyField;

// Owns a libcsv parser for the duration of one parse.
class ParserHandle {
  public:
    ParserHandle() {
        if (csv_init(&parser_, 0) != 0) throw std::runtime_error("csv_init failed");
        // Blanks are part of a field (RFC 4180); libcsv would trim them from unquoted fields.
        csv_set_space_func(&parser_, [](unsigned char) { return 0; });
    }
    ~ParserHandle() { csv_free(&parser_); }
    ParserHandle(const ParserHandle&) = delete;
    ParserHandle& operator=(const ParserHandle&) = delete;
    csv_parser* get() { return &parser_; }

  private:
    csv_parser parser_{};
};

// libcsv's state "field begun" (FIELD_BEGUN in its source; after a closing quote the state moves
// on to "field might have ended").
constexpr int kFieldBegun = 2;

bool InsideQuotedField(const csv_parser& parser) {
    return parser.quoted != 0 && parser.pstate == kFieldBegun;
}

bool IsBlank(const std::string& text) {
    return text.find_first_not_of(" \t") == std::string::npos;
}

std::string TrimBlanks(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// libcsv reports fields and row ends through callbacks; this collects them into rows and
// remembers on which line each row began, which libcsv itself does not track.
struct RowCollector {
    std::vector<std::string> header;
    bool haveHeader = false;
    std::vector<std::string> fields;
    std::vector<std::pair<std::vector<std::string>, int>> rows;
    int currentLine = 0;
    int rowStartLine = 0;  // 0 while no row is in progress
    size_t lineCount = 0;
    const std::function<void(std::vector<std::string>&&, size_t)>* onHeader = nullptr;
    const std::function<void(const std::vector<std::string>&, int)>* onRow = nullptr;

    static void OnField(void* data, size_t size, void* self) {
        auto* c = static_cast<RowCollector*>(self);
        c->fields.emplace_back(static_cast<const char*>(data), size);
    }

    static void OnRowEnd(int, void* self) {
        auto* c = static_cast<RowCollector*>(self);
        if (c->fields.size() == 1 && IsBlank(c->fields[0])) {  // a line of blanks only
            c->fields.clear();
            c->rowStartLine = 0;
            return;
        }
        const int line = c->rowStartLine != 0 ? c->rowStartLine : c->currentLine;
        if (!c->haveHeader) {
            for (std::string& name : c->fields) name = TrimBlanks(name);
            c->header = std::move(c->fields);
            c->haveHeader = true;
            if (c->onHeader) (*c->onHeader)(std::move(c->header), c->lineCount);
        } else if (c->onRow) {
            (*c->onRow)(c->fields, line);
        } else {
            c->rows.emplace_back(std::move(c->fields), line);
        }
        // A streamed row's vector is reused: its strings keep their storage for the next row.
        if (!c->onRow) {
            c->fields.clear();
            c->fields.reserve(c->header.size());
        } else {
            c->fields.clear();
        }
        c->rowStartLine = 0;
    }
};

bool IsBlankLine(const char* begin, const char* end) {
    for (const char* p = begin; p != end; ++p) {
        if (*p != ' ' && *p != '\t' && *p != '\r' && *p != '\n') return false;
    }
    return true;
}

bool NeedsQuoting(const std::string& field) {
    if (field.empty()) return false;
    if (field.find_first_of(",\"\r\n") != std::string::npos) return true;
    const auto isBlank = [](char c) { return c == ' ' || c == '\t'; };
    return isBlank(field.front()) || isBlank(field.back());
}

std::string Quote(const std::string& field) {
    // Worst case: every character is a doubled quote, plus the two enclosing quotes.
    std::string out(field.size() * 2 + 2, '\0');
    const size_t written = csv_write(out.data(), out.size(), field.data(), field.size());
    out.resize(written);
    return out;
}

}  // namespace

CSVRow::CSVRow(std::shared_ptr<const std::unordered_map<std::string, size_t>> columns,
               std::vector<std::string> fields, int lineNumber)
    : columns_(std::move(columns)), fields_(std::move(fields)), line_(lineNumber) {}

const std::string& CSVRow::operator[](const std::string& column) const {
    const auto it = columns_->find(column);
    if (it == columns_->end()) throw std::out_of_range("Can't find a column named " + column);
    return it->second < fields_.size() ? fields_[it->second] : kEmptyField;
}

bool CSVRow::HasColumn(const std::string& column) const {
    return columns_->count(column) > 0;
}

CSVReader CSVReader::FromText(const std::string& text) {
    CSVReader reader;
    reader.Parse(text);
    return reader;
}

namespace {

// Feeds the text to libcsv one line at a time, so that each row can be given the line it starts
// on. Returns the line of a quoted field that never closes (0 when none).
int ParseLines(const std::string& text, RowCollector& collector) {
    static const char kBom[] = "\xEF\xBB\xBF";
    const char* pos = text.data();
    const char* const end = text.data() + text.size();
    if (text.compare(0, 3, kBom) == 0) pos += 3;
    collector.lineCount = static_cast<size_t>(std::count(pos, end, '\n')) + 1;

    ParserHandle parser;
    while (pos < end) {
        const void* newline = std::memchr(pos, '\n', static_cast<size_t>(end - pos));
        const char* lineEnd = newline ? static_cast<const char*>(newline) + 1 : end;
        ++collector.currentLine;
        if (collector.rowStartLine == 0 && !IsBlankLine(pos, lineEnd)) {
            collector.rowStartLine = collector.currentLine;
        }
        const size_t size = static_cast<size_t>(lineEnd - pos);
        if (csv_parse(parser.get(), pos, size, RowCollector::OnField, RowCollector::OnRowEnd,
                      &collector) != size) {
            throw std::runtime_error(std::string("CSV parse error: ") +
                                     csv_strerror(csv_error(parser.get())));
        }
        pos = lineEnd;
    }
    // A quoted field still open at the end of the text would swallow every line after its
    // opening quote: that row is dropped and its first line remembered for the report.
    if (InsideQuotedField(*parser.get())) {
        csv_fini(parser.get(), nullptr, nullptr, nullptr);
        return collector.rowStartLine != 0 ? collector.rowStartLine : collector.currentLine;
    }
    csv_fini(parser.get(), RowCollector::OnField, RowCollector::OnRowEnd, &collector);
    return 0;
}

std::string ReadWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in) throw std::runtime_error("Can't open " + path);
    std::string text(static_cast<size_t>(in.tellg()), '\0');
    in.seekg(0);
    if (!in.read(text.data(), static_cast<std::streamsize>(text.size()))) {
        throw std::runtime_error("Can't read " + path);
    }
    return text;
}

}  // namespace

StreamOutcome StreamFile(const std::string& path,
                         const std::function<void(std::vector<std::string>&&, size_t)>& onHeader,
                         const std::function<void(const std::vector<std::string>&, int)>& onRow) {
    const std::string text = ReadWholeFile(path);
    RowCollector collector;
    collector.onHeader = &onHeader;
    collector.onRow = &onRow;
    StreamOutcome outcome;
    outcome.unclosedQuoteLine = ParseLines(text, collector);
    outcome.lastLine = collector.currentLine;
    return outcome;
}

CSVReader::CSVReader(const std::string& path) {
    Parse(ReadWholeFile(path));
}

void CSVReader::Parse(const std::string& text) {
    RowCollector collector;
    unclosedQuoteLine_ = ParseLines(text, collector);
    if (unclosedQuoteLine_ != 0) unclosedQuoteLastLine_ = collector.currentLine;

    header_ = std::move(collector.header);
    auto columns = std::make_shared<std::unordered_map<std::string, size_t>>();
    for (size_t i = 0; i < header_.size(); ++i) columns->emplace(header_[i], i);
    rows_.reserve(collector.rows.size());
    for (auto& [fields, line] : collector.rows)
        rows_.emplace_back(columns, std::move(fields), line);
}

void DelimWriter::WriteRow(const std::vector<std::string>& fields) {
    std::string line;
    for (size_t i = 0; i < fields.size(); ++i) {
        if (i > 0) line += ',';
        line += NeedsQuoting(fields[i]) ? Quote(fields[i]) : fields[i];
    }
    // A row of one empty field would otherwise be a blank line, which readers skip.
    if (fields.size() == 1 && fields[0].empty()) line = "\"\"";
    line += '\n';
    out_ << line;
    out_.flush();
}

}  // namespace csv
