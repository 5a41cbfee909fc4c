// Looks at each block of memory that a C++ object releases.
#pragma once

/// From now on the blocks are searched for `text`, which outlives the watch; null ends it.
void watchReleasedBlocks(const char* text);

/// Blocks that were released while they were watched, and those of them that held the text.
int releasedBlocks();
int releasedBlocksWithText();
