// Listens to what the parser tells the service, in place of the service itself.
#pragma once

#include <functional>

/// How often the parser said that the script's content has changed.
int noticesOfContent();

/// Called at each notice; none by default.
void onContentNotice(std::function<void()> listener);
