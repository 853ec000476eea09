#include "Html.h"

namespace datastore {

std::string html(std::string const& text) {
    std::string out;
    for (char c : validUtf8(text)) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

std::string scriptJson(Json const& value) {
    std::string const text = value.dump(-1, ' ', false, Json::error_handler_t::replace);
    std::string out;
    for (char c : text) {
        if (c == '<')
            out += "\\u003c";
        else if (c == '>')
            out += "\\u003e";
        else if (c == '&')
            out += "\\u0026";
        else
            out += c;
    }
    return out;
}

std::string fillTemplate(std::string const& text,
                         std::map<std::string, std::string> const& values) {
    std::string out;
    std::size_t from = 0;
    for (std::size_t open = text.find("{{"); open != std::string::npos;
         open = text.find("{{", open + 2)) {
        std::size_t const close = text.find("}}", open + 2);
        if (close == std::string::npos) break;
        auto const value = values.find(text.substr(open + 2, close - open - 2));
        if (value == values.end()) continue;
        out.append(text, from, open - from).append(value->second);
        from = close + 2;
        open = close;
    }
    return out.append(text, from, std::string::npos);
}

}  // namespace datastore
