// Gives this process its own /tmp, /run, /etc, /dev and /usr/local, for tests of fixed paths.
#pragma once

/// Moves the process into a new mount namespace (and a new user namespace if it is not root), with
/// empty /tmp, /run and /usr/local, a private copy of /etc and a /dev without a log socket. Call it
/// first in a test, before the process has a second thread. Ends the test process with a message if
/// the machine does not allow namespaces.
void enterOwnRoot();
