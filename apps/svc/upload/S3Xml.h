// The little XML that S3 servers answer with (errors, upload ids, lists of
// parts and of uploads), read without a parser, and the text of a server
// made fit for a message.
//
// Bodies are hostile: every function only searches forward, never recurses,
// and its time and output are bounded by its input. Element names match
// exactly (no namespaces, no attributes on the elements read). Plain
// functions; any thread.
#ifndef QX_APPS_SVC_UPLOAD_S3XML_H
#define QX_APPS_SVC_UPLOAD_S3XML_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace qxsvc {

// The text of the first <tag>...</tag> that begins in body[from, to) and
// ends by to, with the five named entities and "&#34;", "&#39;" replaced;
// "" when there is none.
std::string xmlText(std::string const& body, char const* tag, std::size_t from = 0,
                    std::size_t to = std::string::npos);

// The ranges [start of "<tag>", start of "</tag>") of every tag element of
// body, in order, not nested.
std::vector<std::pair<std::size_t, std::size_t>> xmlElements(std::string const& body, char const* tag);

// text with "&", "<", ">" and '"' as entities, for an element's content.
std::string xmlEscape(std::string const& text);

// The longest text of a server that cleanQuote keeps.
constexpr std::size_t kMaxQuoted = 300;

// A server's text for a message: every control byte becomes a blank, the
// blanks at the end go, and after kMaxQuoted bytes the rest becomes "...".
std::string cleanQuote(std::string const& text);

// Reads text of 1 to 19 decimal digits into value; false on anything else.
bool parseDecimal(std::string const& text, std::uint64_t& value);

}  // namespace qxsvc

#endif  // QX_APPS_SVC_UPLOAD_S3XML_H
