// Lets one allocation of this test program fail, to see what is left behind.
#pragma once

/// operator new succeeds `successes` times more and fails once then; negative: it does not fail.
/// For tests of one thread.
void failAllocationAfter(int successes);
