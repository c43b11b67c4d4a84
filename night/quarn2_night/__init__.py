"""The nightly backups and the restore: programs that run quarn2_cp. Only the standard library is used."""
