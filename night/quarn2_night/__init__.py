"""The nightly backups and the restore, around quarn2_cp. Only the standard library is used."""
