# Where the installed service lives; None in the source tree. An installed
# package carries its own copy of this file, written by the installation.
SERVICE_DIR = None
