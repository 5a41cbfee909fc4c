// Looks at each block of memory that a C++ object releases.
#pragma once

/// From now on, released blocks are searched for `text`, which must exist until the search ends.
/// Null ends the search.
void watchReleasedBlocks(const char* text);

/// The number of blocks that were released during the search, and the number of those that
/// contained the text.
int releasedBlocks();
int releasedBlocksWithText();
