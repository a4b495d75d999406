"""How a path of the machine begins, for the checks that look for such paths in the sources:
check-groups (is it in captures?), bad-inputs (are bad ones tried?), tests/docs/docs_test.py (is it in
the manual?). A directory of the root that the agent is new in using is added here, for all of them.
"""

DIRECTORIES = ("bin", "boot", "dev", "etc", "home", "lib", "lib64", "media", "mnt", "opt", "proc", "root",
               "run", "sbin", "srv", "sys", "tmp", "usr", "var", "vmfs")
BEGINNING = f"/(?:{'|'.join(DIRECTORIES)})\\b"
