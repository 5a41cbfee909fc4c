// Replaces the service: records the notifications that the parser sends to it.
#pragma once

#include <functional>

/// How often the parser has reported that the script's content has changed.
int noticesOfContent();

/// Sets a function that is called at each notification. By default there is none.
void onContentNotice(std::function<void()> listener);
