#pragma once

// A small CSV layer over libcsv: read a file by column name, write rows with quoting.
// Nothing else in the project parses or writes CSV by hand.

#include <cstddef>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <unordered_map>
#include <vector>

namespace csv {

class CSVRow {
  public:
    CSVRow(std::shared_ptr<const std::unordered_map<std::string, size_t>> columns,
           std::vector<std::string> fields, int lineNumber);

    // The field under a column name; throws std::out_of_range with
    // "Can't find a column named " + name when the header has no such column.
    // A row shorter than the header reads as empty text in its missing columns.
    const std::string& operator[](const std::string& column) const;
    bool HasColumn(const std::string& column) const;
    const std::vector<std::string>& Fields() const { return fields_; }
    // 1-based line of the file on which the row starts.
    int LineNumber() const { return line_; }

  private:
    std::shared_ptr<const std::unordered_map<std::string, size_t>> columns_;
    std::vector<std::string> fields_;
    int line_ = 0;
};

// Reads a file row by row without keeping the rows: for large files whose rows are turned into
// something else at once. `onHeader` receives the trimmed header and the file's line count (a
// size hint); `onRow` each row's fields (valid during the call) and the line the row starts on.
struct StreamOutcome {
    int unclosedQuoteLine = 0;  // as CSVReader::UnclosedQuoteLine
    int lastLine = 0;
};
StreamOutcome StreamFile(const std::string& path,
                         const std::function<void(std::vector<std::string>&&, size_t)>& onHeader,
                         const std::function<void(const std::vector<std::string>&, int)>& onRow);

class CSVReader {
  public:
    // Reads and parses the whole file. A file that cannot be opened throws std::runtime_error.
    explicit CSVReader(const std::string& path);
    static CSVReader FromText(const std::string& text);

    const std::vector<std::string>& GetColNames() const { return header_; }
    const std::vector<CSVRow>& Rows() const { return rows_; }
    std::vector<CSVRow>::const_iterator begin() const { return rows_.begin(); }
    std::vector<CSVRow>::const_iterator end() const { return rows_.end(); }
    // The line where a quoted field opens that the text never closes (0 when every quote is
    // closed), and the last line of the text. The row holding that field is not in Rows().
    int UnclosedQuoteLine() const { return unclosedQuoteLine_; }
    int UnclosedQuoteLastLine() const { return unclosedQuoteLastLine_; }

  private:
    CSVReader() = default;
    void Parse(const std::string& text);

    std::vector<std::string> header_;
    std::vector<CSVRow> rows_;
    int unclosedQuoteLine_ = 0;
    int unclosedQuoteLastLine_ = 0;
};

// Writes rows, quoting every field that needs it (separator, quote, line break, outer blanks).
class DelimWriter {
  public:
    explicit DelimWriter(std::ostream& out) : out_(out) {}
    void WriteRow(const std::vector<std::string>& fields);
    DelimWriter& operator<<(const std::vector<std::string>& fields) {
        WriteRow(fields);
        return *this;
    }

  private:
    std::ostream& out_;
};

}  // namespace csv
