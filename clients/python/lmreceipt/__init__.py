"""Client for the lmreceipt service, in plain Python (standard library only).

    import lmreceipt
    result = lmreceipt.analyze("receipt.pdf", currency="EUR", taxes=[7, 19])

`python3 -m lmreceipt FILE...` prints the results as JSON, as
`lmreceipt call` does. See lmreceipt.client for the whole interface.
"""

from .client import (DEFAULT_SERVICE_NAME, DEFAULT_TIMEOUT, ERROR_CODE, ERROR_DOMAIN,
                     ArchiveError, ServiceClient, ServiceError, ServiceNotReachable, analyze,
                     archive, find_service_executable, socket_path, unarchive)

__all__ = ["DEFAULT_SERVICE_NAME", "DEFAULT_TIMEOUT", "ERROR_CODE", "ERROR_DOMAIN",
           "ArchiveError", "ServiceClient", "ServiceError", "ServiceNotReachable", "analyze",
           "archive", "find_service_executable", "socket_path", "unarchive"]
