# SPDX-License-Identifier: Apache-2.0
"""svcmgr-package(5), from the parts "Installed packages" and "Key files" of docs/desktop-platform.md."""

import roff

ENVIRONMENT = r""".SH ENVIRONMENT
.TP
.B VELMORA_PACKAGE_DIR
The folder of installed packages.
.TP
.B XDG_DATA_HOME
Without the former, the folder is
.I velmora/packages
below this one.
.TP
.B HOME
Without both, it is
.I .local/share/velmora/packages
below this one.
.PP
All three count as absent in a program that runs with more rights than its user has.
.SH FILES
.TP
.IR ~/.local/share/velmora/packages/ID .package
A package.
.TP
.I ~/.local/share/velmora/packages/.generation
By what the functions of
.I package_desktop.h
have changed it, a number, which look\-ups compare.
.SH BUGS
There is nothing that writes a package from a shell but an editor, or
.BR svcmgr\-sim (1)
for the packages of its worlds.
A file that is broken is reported in the log of the next program that looks, and nowhere else."""


def pages(root, version):
    guide = (root / "docs/desktop-platform.md").read_text(encoding="utf-8")
    lines = roff.head("svcmgr-package", 5, version, "File Formats", "docs/desktop-platform.md",
                      "a package that is installed on a desktop, for the service\\-manager agent and its clients")
    lines += [".SH DESCRIPTION"] + roff.body(roff.part(guide, "Key files"))[1:]
    lines += [".SH WHEN A CHANGE IS SEEN"] + roff.body(roff.part(guide, "Installed packages"))[1:]
    lines += [ENVIRONMENT]
    lines += roff.see_also([("svcmgr-sim", 1), ("svcmgrctl", 1), ("svcmgr-scenario", 5), ("velmora_svcmgr", 7)])
    return {"svcmgr-package.5": lines}
