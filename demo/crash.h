// A crash as a customer's would be, and what a host does so that a report of it results.
#pragma once

// Never returns ordinarily: the process ends with the report written.
int CrashWithReport();
