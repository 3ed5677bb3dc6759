/*
 * kolt.h - C interface of libkolt, the driver library of the KOLT KL560T41
 * bank-counter peripheral (IC-card reader with PSAM slots, magnetic-stripe
 * reader/writer, identity-card reader, fingerprint sensor, LEDs, buzzer).
 *
 * Valid C (C99 and later) and C++. Every function returns its result as an
 * integer unless noted; buffers belong to the caller. Texts handed back are
 * GBK; hexadecimal text is upper case unless a function says otherwise.
 * The library keeps process-wide state (the link, the log switch and the
 * card working state): call it from one thread at a time, except for
 * setting cancelOperation from another thread.
 *
 * Each exported declaration sits on one line beginning with KOLT_API; the
 * build derives the library's export list from these lines.
 */
#ifndef KOLT_KOLT_H
#define KOLT_KOLT_H

#include <stddef.h>
#include <stdint.h>

#if defined(KOLT_BUILDING_LIBRARY)
#define KOLT_API __attribute__((visibility("default")))
#else
#define KOLT_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ======================================================================
 * Result codes
 * ==================================================================== */
#define OK                              0      /* success */
#define Lenth_Error                     (-1)   /* no reply, or a reply too short */
#define Revdata_Error                   (-2)   /* received data error (check byte) */
#define Para_Error                      (-3)   /* bad parameter */
#define Unknow_Error                    0x100  /* device status that maps to nothing else */

#define ICC_Contact_Not_Support         0x1001 /* contact reader not supported */
#define ICC_Contact_Not_Insert          0x1002 /* no card in the contact slot */
#define ICC_Contact_Powered             0x1003 /* contact card already powered */
#define ICC_Contact_Not_Powered         0x1004 /* contact card not powered */
#define ICC_Contact_Poweron_Failed      0x1005 /* contact card power-on failed */
#define ICC_No_Response                 0x1006 /* card does not answer (contact or contactless) */
#define ICC_Data_Error                  0x1007 /* card data error (contact or contactless) */

#define PSAM_Not_Supported              0x2001 /* PSAM slot not supported */
#define PSAM_Not_Powered                0x2004 /* PSAM not powered */
#define PSAM_Poweron_Failed             0x2005 /* PSAM power-on failed */
#define PSAM_No_Response                0x2006 /* PSAM does not answer */
#define PSAM_Data_Error                 0x2007 /* PSAM data error */

#define ICC_Contactless_Not_Support     0x3001 /* contactless reader not supported */
#define ICC_Contactless_Not_Activated   0x3004 /* contactless card not activated */
#define ICC_Contactless_Startup_Error   0x3005 /* defined for applications; the device mapping never gives it */
#define ICC_Contactless_Enter_Timeout   0x3006 /* defined for applications; the device mapping never gives it */
#define ICC_Contactless_More_Enter      0x3009 /* defined for applications; the device mapping never gives it */

#define MC_Read_Timeout                 0x9001 /* magnetic stripe read time-out */

#define APDU_OK                                        0x9000 /* card status word: success */
#define APDU_ERROR                                     (-1)   /* card exchange failed */
#define APDU_Sendback_Data_Error                       0x6281 /* part of the returned data may be corrupted */
#define APDU_Read_Datalen_Less_Le                      0x6282 /* end of file reached before Le bytes */
#define APDU_App_Locked                                0x6283 /* selected application is blocked */
#define APUD_External_Authenticate_Error               0x6300 /* external authentication failed */
#define APDU_No_Specific_Problem                       0x6400 /* execution error, no precise diagnosis */
#define APDU_Memory_Error                              0x6581 /* memory failure */
#define APDU_Lc_Length_Error                           0x6700 /* wrong length */
#define APDU_Not_Support_LogicalChannel_Or_Not_Active  0x6881 /* logical channel not supported */
#define APDU_Not_Satisfy_Safety_Conditions             0x6982 /* security status not satisfied */
#define APDU_Not_Satisfy_Use_Conditions                0x6985 /* conditions of use not satisfied */
#define APDU_Not_Satisfy_Cmd_Excute_Conditions         0x6986 /* command not allowed */
#define APDU_Cmd_Data_Error                            0x6A80 /* incorrect data field */
#define APDU_Function_Not_Support                      0x6A81 /* function not supported */
#define APDU_ApplicationOrFile_Not_Found               0x6A82 /* application or file not found */
#define APDU_Readed_LastRecord                         0x6A83 /* record not found (read past the last) */
#define APDU_P1P2_Error                                0x6A86 /* incorrect P1 P2 */
#define APDU_Reference_Data_Not_Found                  0x6A88 /* referenced data not found */
#define APDU_Offset_Address_Error                      0x6B00 /* wrong offset */
#define APDU_INS_Error                                 0x6D00 /* instruction not supported */
#define APDU_CLA_Error                                 0x6E00 /* class not supported */
#define APDU_No_Precise_Diagnosis                      0x6F00 /* no precise diagnosis */
#define APDU_Application_Permanent_locked_             0x0903 /* application permanently locked (value as the device firmware defines it) */

/* ======================================================================
 * Constants
 * ==================================================================== */
#define LED_IC          1  /* LED of the contact card reader */
#define LED_MC          2  /* LED of the magnetic stripe reader */
#define LED_RF          3  /* LED of the contactless reader */
#define LED_FP          4  /* LED of the fingerprint sensor */
#define LED_Color_G     0  /* green */
#define LED_Color_R     1  /* red */
#define LED_Color_y     2  /* yellow */
#define LED_Lightout    0  /* switch the LED off */
#define LED_Light       1  /* switch the LED on */
#define LED_Flicker     2  /* let the LED blink */

#define SLOT_0_K300     0x01 /* contact card slot */
#define SLOT_5_K200     0x02 /* second contact card slot (auto mode as a power-on argument) */
#define SLOT_1_SIM300   0x14 /* PSAM holder 1 */
#define SLOT_2_SIM200   0x11 /* PSAM holder 2 */
#define SLOT_3_SIM201   0x12 /* PSAM holder 3 */
#define SLOT_4_SIM202   0x13 /* PSAM holder 4 */
#define SLOT_MC         0xFE /* magnetic stripe */
#define SLOT_RF         0xFF /* contactless */

/* ======================================================================
 * Exported globals
 * ==================================================================== */
KOLT_API extern char gPortName[32];              /* device name below "/dev/" that the link opens, e.g. "ttyS0" or "pts/3" */
KOLT_API extern volatile int32_t cancelOperation; /* set to 1 from another thread to abandon a waiting stripe read or write */

/* ======================================================================
 * Support: Base64 (in place)
 * ==================================================================== */
KOLT_API int32_t KOLT_Base64(uint8_t *buf, int32_t len);   /* encodes len bytes in place; returns (len+2)/3*4; buf needs that room plus one */
KOLT_API int32_t KOLT_UnBase64(uint8_t *buf, int32_t len); /* decodes len characters in place (pads unpadded text); returns the byte count, 0 when len%4 == 1 */

/* ======================================================================
 * Support: hex, BCD and string helpers
 * ==================================================================== */
KOLT_API uint32_t KOLT_hexstrtoint(const char *text, int32_t n);                    /* value of the first n hex characters (0x30..0x3A count 0..10) */
KOLT_API int32_t KOLT_hexstrtointBuf(const char *text, uint8_t *out);               /* hex text to bytes, pair by pair; "ABC" gives AB C0; returns 0 */
KOLT_API int32_t KOLT_hexStrToIntStr(const char *text, uint8_t *out);               /* hex text to bytes; out needs strlen(text) bytes; returns strlen(text)/2 */
KOLT_API int32_t BCDBuf2HexCharBuf(const uint8_t *bytes, int32_t n, char *out);     /* n bytes to 2n upper-case hex digits and a terminator; returns 2n */
KOLT_API int32_t KOLT_buf2HexStrBuf(char *out, int32_t n, uint8_t *bytes);          /* n bytes to 2n lower-case hex digits (no terminator); upper-cases the source bytes; returns 2n */
KOLT_API int32_t Decimal2BCDBuf(int32_t value, uint8_t *out, int32_t width);        /* decimal value packed right-aligned into width BCD bytes; -1 when it does not fit */
KOLT_API int32_t byteBuf2BCDBuf(const char *digits, int32_t n, uint8_t *out, int32_t width); /* n digit characters packed right-aligned into width bytes; -1 when too long */
KOLT_API int32_t KOLT_atoiLen(const char *text, int32_t n);                         /* decimal value of the first n characters */
KOLT_API char *KOLT_itoa(uint64_t value, char *out, int32_t base);                  /* value in base (lower-case letters) into out; base 0 gives "0" */
KOLT_API int32_t KOLT_strpos(const char *needle, const char *haystack);             /* index of needle in haystack; -1 absent, -2 empty needle, -3 empty haystack */
KOLT_API int32_t KOLT_SubBufPos(const uint8_t *needle, int32_t needleLen, const uint8_t *buffer, int32_t bufferLen); /* index of a byte run; -1 absent, -2 needleLen < 1, -3 buffer too short */
KOLT_API int32_t KOLT_GetSubStr(const char *text, char *out, char separator, int32_t k); /* k-th field (from 1) of text into out; returns its start index, 0 for the last field */
KOLT_API int32_t KOLT_strreplace(const char *from, const char *to, char *text);     /* replaces every from by to in text (at most 1023 characters); returns 0 */
KOLT_API int32_t KOLT_isNum(const uint8_t *bytes, int32_t n);                       /* 0 when all n bytes are decimal digits, else -1 */
KOLT_API int32_t KOLT_CharIsNum(uint8_t c);                                         /* 0 for a decimal digit, else -1 */
KOLT_API int32_t KOLT_GetRandByte(uint8_t *out, int32_t n);                         /* n pseudo-random bytes, seeded from the time in seconds; returns n */
KOLT_API int32_t KOLT_getFileSize(const char *path);                                /* file size in bytes, -1 when it cannot be opened */
KOLT_API int32_t KOLT_copyfile(const char *destination, const char *source);        /* copies a file; -1 no source, -2 destination not created */
KOLT_API int32_t KOLT_readFile2Buf(const char *path, uint8_t *buffer, int32_t n);   /* reads up to n bytes; returns n; -1 when it cannot be opened */
KOLT_API int32_t KOLT_readFileToBuf(const char *path, uint8_t *buffer);             /* reads the whole file (caller gives room); returns its size; -1 on failure */
KOLT_API int32_t KOLT_writeBuf2File(const char *path, const uint8_t *buffer, int32_t n); /* creates path with n bytes; -1 when it exists or the write fails */

/* ======================================================================
 * Support: TLV codec (items point into the caller's source buffer)
 * ==================================================================== */
typedef struct tlv_field_t {
    uint32_t size;       /* number of bytes */
    const uint8_t *data; /* first byte in the source; NULL for an empty value */
} tlv_field_t;

typedef struct tlv_t {
    tlv_field_t tag;     /* tag: 1 or 2 bytes */
    tlv_field_t val;     /* value */
} tlv_t;

KOLT_API int32_t parse_tlv_tag(tlv_t *item, const uint8_t *src);                    /* fills item->tag (two bytes when the low five bits are all set); returns 0 */
KOLT_API int32_t parse_tlv_length(tlv_field_t *val, const uint8_t *p);              /* decodes the length at p into val; 0, or -1 for a length byte 0x80 or 0x84..0xFF */
KOLT_API int32_t tlv_parser(tlv_t *item, const uint8_t *src, int32_t avail);        /* one item; 0 when tag, length and value fit in avail bytes, else -1 */
KOLT_API int32_t count_tlv_substring(const uint8_t *src, int32_t size, int32_t strict); /* items that tile src; a bad item gives -1 (strict == 1) or the count so far */
KOLT_API int32_t unpack_tlv_data(tlv_t **list, const uint8_t *src, int32_t size, int32_t strict); /* allocates *list (caller frees); n, -1 count failed, -2 no memory, -3 second pass failed */
KOLT_API int32_t parse_tlv_data_t(const uint8_t **out, const char *tag, const uint8_t *src, int32_t size); /* value length of the first top-level tag; -2 absent, -1 malformed */
KOLT_API int32_t parse_tlv_data(uint8_t *out, const char *tag, const uint8_t *src, int32_t size); /* as parse_tlv_data_t, value copied to out; -1 on any failure */
KOLT_API int32_t parse_tlv_data_tmplt(uint8_t *out, const char *tag, const char *path, const uint8_t *src, int32_t size); /* tag inside the one-byte templates of path; -1 path, -3 absent, -2 empty */
KOLT_API int32_t pack_tlv_data(uint8_t *out, const char *tag, const uint8_t *value, uint32_t length); /* writes tag, length, value; -1 bad tag, -2 length 128 or above 0xFFFFFF */
KOLT_API void KOLT_TLV_debugWriteLog(const char *format, const void *data, int32_t len); /* trace hook of the codec; writes nothing */

/* ======================================================================
 * Support: logging
 * ==================================================================== */
KOLT_API void KOLT_debugWriteLogLen(const char *format, const void *data, int32_t len); /* one debug-log line when the log switch is on ("%s" "%d" "%02x" "%x" "%c") */
KOLT_API void KOLT_errorWriteLogLen(const char *format, const void *data, int32_t len); /* one error-log line (under the executable's KTLog directory) when the switch is on */
KOLT_API void KOLT_writeLog(const char *path, const char *format, const void *data, int32_t len); /* appends one timestamped line to path; rotates to path.bak above 10 MiB */
KOLT_API int32_t getNowYearMonth(char *out);                                        /* local time as "%Y%m"; returns 0 */
KOLT_API int32_t KOLT_getcurrenttime(char *out);                                    /* local time as "%Y%m%d%H%M%S"; returns 0 */
KOLT_API uint32_t GetTickCount(void);                                               /* milliseconds of the monotonic clock, truncated to 32 bits */
KOLT_API int32_t DeleteLogFilesOneMonthAgo(void);                                   /* removes everything under the executable's KTLog directory; returns 0 */
KOLT_API int32_t KOLT_InitLogDir(char *out);                                        /* "logdir" of $HOME/librun/koltt41fp.cfg into out, "/tmp" when missing; returns 0 */

/* ======================================================================
 * Support: configuration files and the library's own path
 * ==================================================================== */
KOLT_API char *GetIniKeyString(const char *section, const char *key, const char *path); /* value of key in [section] of an INI file, "" when absent (shared buffer) */
KOLT_API int32_t GetIniKeyInt(const char *section, const char *key, const char *path);  /* the value above read as a decimal integer (0 when absent) */
KOLT_API int32_t getsoPath(char *out);                                              /* directory of the loaded library with its trailing "/", "./" when unknown; returns 0 */
KOLT_API void funcGetsoPath(void);                                                  /* address marker used by getsoPath */
KOLT_API int32_t GetCurrentPath(char *out, const char *name);                       /* directory of the executable as invoked, followed by name; returns 0 */

/* ======================================================================
 * Device link: terminal command file "idcread.ext"
 * ==================================================================== */
KOLT_API int32_t KOLT_getTermCmdFromExtfile(const char *typeText, const char *portText, char *openOut, char *closeOut, char *lockOut, char *unlockOut, char *leadOut, char *endOut); /* count of OPEN_COM/CLOSE_COM entries of the section, 0 none, -1 no file */
KOLT_API int32_t KOLT_getTransferCmdFromExtfile(const char *typeText, const char *letter, char *out); /* OPEN_PORT<letter> of the pass-through section as bytes; 0, -2 absent, -1 no file */
KOLT_API int32_t KOLT_getValueFromStr(char *line, const char *key, char *out);       /* value after "key=" in line (line is edited); 0, or -1 when absent */
KOLT_API int32_t KOLT_getValueFromFile(const char *path, const char *key, char *out); /* value of the first "key=" line of a key=value file; 0, -2 absent, -1 no file */
KOLT_API int32_t getStrFirstChar(const char *text);                                 /* first character that is not a blank or a tab, or 0 */
KOLT_API int32_t convertStr2Bytebuf(const char *value, char *out);                  /* terminal-file value to bytes ("1B.." hex, else "\033" text); returns the byte count */

/* ---- KOLT-LINK-BEGIN (serial link, frames, result mapping) ---- */
/* ---- KOLT-LINK-END ---- */

/* ---- KOLT-DEVICE-BEGIN (peripheral and identity-module commands) ---- */
/* ---- KOLT-DEVICE-END ---- */

/* ---- KOLT-ICC-BEGIN (IC card command set) ---- */
/* ---- KOLT-ICC-END ---- */

/* ---- KOLT-EMV-BEGIN (EMV tag tables, DOL, application selection) ---- */
/* ---- KOLT-EMV-END ---- */

/* ---- KOLT-CARDINFO-BEGIN (card information and transaction log) ---- */
/* ---- KOLT-CARDINFO-END ---- */

#ifdef __cplusplus
}
#endif

#endif /* KOLT_KOLT_H */
