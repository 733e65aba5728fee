// (being written) The users' own limits in the configuration backup.
