# SPDX-License-Identifier: Apache-2.0
"""svcmgr-scenario(5), from the part "Format" of the guide to scenarios."""

import roff

DESCRIPTION = r""".SH DESCRIPTION
.BR svcmgr\-sim (1)
reads scenarios, makes a private world with such an agent in it, and runs a command there.
.PP"""

FILES = r""".SH FILES
.TP
.IR PREFIX /share/velmora\-svcmgr/scenarios/*.json
The scenarios that ship, to be read and copied.
.TP
.IR PREFIX /share/velmora\-svcmgr/scenario.schema.json
A JSON schema (draft 7) of scenarios, for editors."""


def pages(root, version):
    guide = (root / "docs/scenarios.md").read_text(encoding="utf-8")
    body = roff.body(roff.part(guide, "Format"))
    lines = roff.head("svcmgr-scenario", 5, version, "File Formats", "docs/scenarios.md",
                      r"what a simulated service\-manager agent is and how it answers")
    lines += [DESCRIPTION] + body[1:] + [FILES]
    lines += roff.see_also([("svcmgr-sim", 1), ("svcmgrctl", 1), ("svcmgr-package", 5),
                            ("velmora_svcmgr", 7)])
    return {"svcmgr-scenario.5": lines}
