"""`python3 -m sondrel_restore`."""
import sys

from sondrel_restore.command_line import main

sys.exit(main())
