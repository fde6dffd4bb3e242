/* What the user of the fault sweeps types into the editor, and where the editor leaves word that it is done.
 */
#ifndef RV_FAULT_USER_TEXT_H
#define RV_FAULT_USER_TEXT_H

#define RV_USER_TEXT "share host \"lab-pc\" name is \"A name that is too long for a small string\"\n"
#define RV_EDITED "/tmp/edited"

#endif
