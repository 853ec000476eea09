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

}  // namespace datastore
