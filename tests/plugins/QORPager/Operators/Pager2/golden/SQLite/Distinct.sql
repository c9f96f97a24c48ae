SELECT DISTINCT "vPeople"."flag" FROM "vPeople"
