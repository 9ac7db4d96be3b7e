// SQL as text: statements told apart, and places in it.
#pragma once

#include <string>
#include <string_view>

namespace sqlhost {

// Nothing but spaces and semicolons.
bool isBlank(std::string_view sql);

// The line of a place in the text, counted from 1.
size_t lineAt(std::string_view all, size_t place);

// Where the rest of a text begins, spaces apart; `offset` is the place of an error in it, or negative.
size_t placeOf(std::string_view all, std::string_view rest, int offset);

// Takes the next word off the text, with the spaces and comments before it; empty where no letter follows.
std::string_view takeWord(std::string_view& sql);

} // namespace sqlhost
