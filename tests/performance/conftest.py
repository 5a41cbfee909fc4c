"""Options for the compiler of the build, and a skip that CTest recognises."""

from support.skipping import SKIPPED


def pytest_addoption(parser):
    parser.addoption("--compiler", required=True, help="name, version and machine")
    parser.addoption("--record", action="store_true", help="write what is counted instead")


def pytest_terminal_summary(terminalreporter):
    for report in terminalreporter.stats.get("skipped", ()):
        terminalreporter.write_line(report.longrepr[2])


def pytest_sessionfinish(session, exitstatus):
    counts = session.config.pluginmanager.get_plugin("terminalreporter").stats
    if exitstatus == 0 and counts.get("skipped") and not counts.get("passed"):
        session.exitstatus = SKIPPED
