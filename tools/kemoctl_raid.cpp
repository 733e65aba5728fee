// (being written) kemoctl raid, volume and quota commands.
