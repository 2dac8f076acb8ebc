// The story of an entry as people read it.
//
// Plain values: any thread.
#pragma once

#include <string>
#include <vector>

#include "inspect/Explain.h"

namespace Inspect {

/// Whether the entry is where it is wanted: in hardware, or gone from it.
bool isGood(Standing standing);

struct StoryPart {
    std::string name;  ///< empty: belongs to the one before
    std::string text;
};
/// What comes below the verdict.
std::vector<StoryPart> storyParts(const Explanation& story);

constexpr std::size_t kStoryIndent = 14;
/// The part's name in front of its text, which begins behind kStoryIndent columns.
std::string lineOf(const StoryPart& part);
/// All of it, without control characters: verdict, an empty line, and a line a part.
std::string storyText(const Explanation& story);

}  // namespace Inspect
